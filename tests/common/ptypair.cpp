#include "ptypair.h"

#include "serial/qcomport.h"

#include <QDeadlineTimer>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

PtyPair::PtyPair()
{
    char name[256] = {};
    termios raw{};
    cfmakeraw(&raw);
    if (openpty(&m_master, &m_slave, name, &raw, nullptr) != 0)
        return;
    m_slavePath = QString::fromLocal8Bit(name);
    ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
}

bool PtyPair::writeMaster(const QByteArray &data)
{
    qint64 done = 0;
    const QDeadlineTimer deadline(5000);
    while (done < data.size() && m_master >= 0 && !deadline.hasExpired()) {
        const ssize_t n = ::write(m_master, data.constData() + done, size_t(data.size() - done));
        if (n > 0)
            done += n;
        else
            ::usleep(1000); // the terminal's buffer is full
    }
    return done == data.size();
}

QByteArray PtyPair::readMaster(int timeoutMs, int atLeast)
{
    QByteArray result;
    const QDeadlineTimer deadline(timeoutMs);
    // Looks at least once, so a zero time-out still sees what has already arrived.
    while (m_master >= 0 && result.size() < atLeast) {
        pollfd pfd{m_master, POLLIN, 0};
        char buffer[4096];
        const ssize_t n = ::poll(&pfd, 1, 10) > 0 ? ::read(m_master, buffer, sizeof buffer) : 0;
        if (n > 0)
            result.append(buffer, int(n));
        if (deadline.hasExpired())
            break;
    }
    return result;
}

void PtyPair::closeMaster()
{
    // Without the test's own slave descriptor the port's side hangs up like a removed device.
    for (int *fd : {&m_master, &m_slave}) {
        if (*fd >= 0)
            ::close(*fd);
        *fd = -1;
    }
}

void PtyPair::publish(const QString &path)
{
    const QByteArray list = qgetenv(QComPort::extraPortsVariable);
    qputenv(QComPort::extraPortsVariable,
            (list.isEmpty() ? list : list + ':') + path.toLocal8Bit());
}
