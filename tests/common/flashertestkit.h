#pragma once

#include <QByteArray>
#include <QDir>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariantList>
#include <QVector>
#include <QWidget>

// Helpers for tests of the flasher dialog: its widgets by object name, its log read back as
// coloured lines, worker results delivered as the worker delivers them, and scatter files on
// disk.
namespace FlasherTestKit {

// The log colours.
constexpr const char *green = "#00b138";
constexpr const char *amber = "#ad6f04";
constexpr const char *red = "#d4280a";

template <class T>
T *child(QWidget *flasher, const char *name)
{
    return flasher->findChild<T *>(QLatin1String(name));
}

struct LogLine
{
    QString colour; // "#rrggbb" of the line's first character
    QString text;
};

// One entry per log paragraph.
QVector<LogLine> logLines(QWidget *flasher);
// "colour|text" per line, handy in QCOMPARE messages.
QStringList logStrings(QWidget *flasher);
QString line(const char *colour, const QString &text);

// Runs the dialog's scatter chooser (on_scatterSelTool_clicked) and returns its result.
bool selectScatter(QObject *flasher);
// Points the default QSettings of this process at a directory of its own, so tests neither
// read nor change the user's settings.
void isolateSettings(const QString &directory);

// Calls the dialog's worker_finished slot, as the worker's queued signal does.
bool deliverFinished(QObject *flasher, bool result, int command,
                     const QVariantList &results = QVariantList());
// A "get info" result: description, chip id, MAC, flash id text, flash size in bytes.
QVariantList chipInfo(const QString &description = QStringLiteral("ESP8266EX"),
                      const QString &chipId = QStringLiteral("00a1b2c3"),
                      quint32 flashBytes = 0x400000);
// The chip field text that chipInfo() leads to.
QString chipField(const QString &description = QStringLiteral("ESP8266EX"),
                  const QString &chipId = QStringLiteral("00a1b2c3"));

// Section objects of a scatter document. An empty md5 leaves the key out.
QJsonObject firmwareSection(const QString &address, const QString &file, const QString &md5,
                            const QString &mode = QStringLiteral("dio"),
                            const QString &size = QStringLiteral("4MB"),
                            const QString &frequency = QStringLiteral("40m"));
QJsonObject applicationSection(const QString &address, const QString &file, const QString &md5);

// A directory of scatter files, loader stubs and images that disappears with the object.
class ScatterDir
{
public:
    ScatterDir();
    bool isValid() const { return m_dir.isValid(); }
    QDir dir() const { return QDir(m_dir.path()); }
    QString path(const QString &name) const { return dir().absoluteFilePath(name); }
    // Writes the bytes and returns the absolute path (empty on failure).
    QString write(const QString &name, const QByteArray &bytes) const;
    // Writes the document as indented JSON.
    QString writeScatter(const QString &name, const QJsonObject &document) const;

private:
    QTemporaryDir m_dir;
};

} // namespace FlasherTestKit
