#pragma once

#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class VirtualBoard;

// Virtual ESP8266 chips started in this process (--virtual), each on a pseudo-terminal of its
// own that the port enumeration lists, so the boards use them like any serial port. Each is
// wired with the auto-reset circuit and runs its firmware until the client resets it.
class VirtualBoards
{
public:
    VirtualBoards();
    ~VirtualBoards();
    VirtualBoards(const VirtualBoards &) = delete;
    VirtualBoards &operator=(const VirtualBoards &) = delete;

    // Starts `count` chips with distinct MAC addresses; false (see errorString()) when one
    // cannot be started.
    bool start(int count);
    QStringList ports() const;
    QString errorString() const { return m_error; }

private:
    std::vector<std::unique_ptr<VirtualBoard>> m_chips;
    QString m_error;
};
