#include "bench/chipprocess.h"

namespace {
constexpr int startTimeoutMs = 10000; // until the device path is printed
constexpr int stopTimeoutMs = 10000;  // until the program has ended after SIGTERM
} // namespace

ChipProcess::ChipProcess(const QString &program, const QStringList &arguments,
                         const QElapsedTimer *clock)
    : m_program(program), m_arguments(arguments), m_clock(clock)
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
}

ChipProcess::~ChipProcess()
{
    stop();
}

bool ChipProcess::start()
{
    m_process.start(m_program, m_arguments, QIODevice::ReadOnly);
    if (!m_process.waitForStarted(startTimeoutMs)) {
        m_error = QStringLiteral("cannot start %1: %2").arg(m_program, m_process.errorString());
        return false;
    }
    while (!m_process.canReadLine()) {
        if (!m_process.waitForReadyRead(startTimeoutMs)) {
            m_error = QStringLiteral("%1 printed no device path").arg(m_program);
            stop();
            return false;
        }
    }
    m_devicePath = QString::fromLocal8Bit(m_process.readLine()).trimmed();
    if (m_clock) {
        QObject::connect(&m_process, &QProcess::readyReadStandardOutput, &m_process,
                         [this] { readLines(); });
        readLines();
    }
    return !m_devicePath.isEmpty();
}

void ChipProcess::readLines()
{
    const qint64 now = m_clock->nsecsElapsed();
    while (m_process.canReadLine())
        m_lines.append({now, QString::fromLocal8Bit(m_process.readLine()).trimmed()});
}

bool ChipProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
    m_process.terminate();
    if (!m_process.waitForFinished(stopTimeoutMs)) {
        m_process.kill();
        m_process.waitForFinished(stopTimeoutMs);
        return false;
    }
    if (m_clock)
        readLines();
    return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
}
