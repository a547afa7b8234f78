#include "bench/chipprocess.h"

namespace {
constexpr int startTimeoutMs = 10000; // until the device path is printed
constexpr int stopTimeoutMs = 10000;  // until the program has ended after SIGTERM
} // namespace

ChipProcess::ChipProcess(const QString &program, const QStringList &arguments)
    : m_program(program), m_arguments(arguments)
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
    return !m_devicePath.isEmpty();
}

void ChipProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(stopTimeoutMs)) {
        m_process.kill();
        m_process.waitForFinished(stopTimeoutMs);
    }
}
