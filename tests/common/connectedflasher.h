#pragma once

#include "chipfixture.h"

#include "flasher/espflasher.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>

class QWidget;

// A flasher dialog connected to a running virtual chip that it has identified: where every
// operation test starts. The extra-ports variable is restored when the object goes away.
class ConnectedFlasher
{
public:
    explicit ConnectedFlasher(ESPFlasher::RUN_MODE mode = ESPFlasher::RUN_MODE_STANDALONE,
                              const VirtualEsp8266::Config &config = VirtualEsp8266::Config());
    ~ConnectedFlasher();
    ConnectedFlasher(const ConnectedFlasher &) = delete;
    ConnectedFlasher &operator=(const ConnectedFlasher &) = delete;

    // Starts the chip, opens the dialog, connects through the port list and waits for the chip
    // to be identified. On failure *why says what went wrong.
    bool connect(QString *why);

    ESPFlasher *dialog() const { return m_dialog.get(); }
    VirtualEsp8266 &chip() { return m_chip.chip(); }
    QString port() const { return m_chip.port(); }
    // Closes the dialog (its worker and the port) and keeps the chip.
    void closeDialog() { m_dialog.reset(); }

private:
    QByteArray m_savedPorts;
    ChipFixture m_chip;
    ESPFlasher::RUN_MODE m_mode;
    std::unique_ptr<ESPFlasher> m_dialog;
};

// Longest wait for one worker step against a virtual chip, in milliseconds; only a fault lets
// it run out.
constexpr int workerStepTimeoutMs = 20000;

// Processes events until the dialog's log holds `line` ("colour|text", trailing progress dots
// ignored) at index `from` or later, at most timeoutMs milliseconds.
bool waitForLogLine(QWidget *flasher, const QString &line, int from = 0,
                    int timeoutMs = workerStepTimeoutMs);
// The log as "colour|text" lines with the progress dots at their ends removed, from line
// `from` on.
QStringList logWithoutDots(QWidget *flasher, int from = 0);
// Number of log lines so far.
int logLineCount(QWidget *flasher);
