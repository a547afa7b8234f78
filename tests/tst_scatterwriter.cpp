#include "scattertestfiles.h"

#include "flasher/scattervalidator.h"
#include "flasher/scatterwriter.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

ScatterSection row(int kind, quint32 address, quint32 end, const QString &file)
{
    ScatterSection section;
    section.hasCells = true;
    section.kind = kind;
    section.kindSet = true;
    section.startAddress = address;
    section.endAddress = end;
    section.file = file;
    if (kind == ScatterSection::Firmware) {
        section.flashMode = "dout";
        section.flashSize = "2MB";
        section.flashFrequency = "26m";
    }
    return section;
}

} // namespace

class TestScatterWriter : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString &name) const { return QDir(m_dir.path()).absoluteFilePath(name); }

private slots:
    void chipName_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("name");
        QTest::newRow("name and id") << "ESP8266EX / 00a1b2c3"
                                     << "ESP8266EX";
        QTest::newRow("no slash") << " ESP8285 "
                                  << "ESP8285";
        QTest::newRow("several slashes") << "ESP8285/a/b"
                                         << "ESP8285";
        QTest::newRow("empty first part") << " / 00a1b2c3"
                                          << "";
        QTest::newRow("empty") << ""
                               << "";
    }

    void chipName()
    {
        QFETCH(QString, description);
        QFETCH(QString, name);
        QCOMPARE(ScatterWriter::chipName(description), name);
    }

    void sectionObjects()
    {
        const QJsonObject firmware = ScatterWriter::sectionObject(
            row(ScatterSection::Firmware, 0x1000, 0x2000, "x"), "ABC", "fw.bin");
        QCOMPARE(
            firmware,
            (QJsonObject{{"type", "firmware"},
                         {"address", "0x00001000"},
                         {"md5", "ABC"},
                         {"file", "fw.bin"},
                         {"options", QJsonObject{{"flash", QJsonObject{{"size", "2MB"},
                                                                       {"mode", "dout"},
                                                                       {"frequency", "26m"}}}}}}));
        const QJsonObject application = ScatterWriter::sectionObject(
            row(ScatterSection::Application, 0x3fc000, 0x400000, "x"), "DEF", "app.bin");
        QCOMPARE(application, (QJsonObject{{"type", "application"},
                                           {"address", "0x003fc000"},
                                           {"md5", "DEF"},
                                           {"file", "app.bin"}}));
        // A firmware row of a non-strict load (kind never set) is still firmware.
        ScatterSection unset;
        unset.hasCells = true;
        QCOMPARE(ScatterWriter::typeName(unset), QString("firmware"));
    }

    void packageDocument()
    {
        const QJsonArray sections{QJsonObject{{"type", "application"}}};
        QCOMPARE(ScatterWriter::packageDocument("ESP8285 / 1234", sections),
                 (QJsonObject{{"chip", "ESP8285"},
                              {"stub", "esp8266_loader_stub.elf"},
                              {"sections", sections}}));
    }

    void savedDocument()
    {
        const QByteArray firmware = patternBytes(4096, 1);
        const QByteArray application = patternBytes(777, 2);
        QVERIFY(!writeTestFile(m_dir.path(), "read/fw.img", firmware).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "read/images/app.img", application).isEmpty());
        const QString stub = writeTestFile(m_dir.path(), "loaders/stub.elf", "stub");
        const QDir dir(path("read"));

        QVector<ScatterSection> rows{
            row(ScatterSection::Firmware, 0x0, 0x1000, "fw.img"),
            ScatterSection(), // no cells
            row(ScatterSection::Application, 0x10000, 0x10309, path("read/images/app.img")),
            row(ScatterSection::Application, 0x20000, 0x21000, "unchecked.img"),
            row(ScatterSection::Application, 0x30000, 0x31000, "never-read.img"),
        };
        rows[3].active = false;

        const QJsonObject document =
            ScatterWriter::savedDocument("ESP8266EX / 00a1b2c3", stub, rows, dir);
        QCOMPARE(document.value("chip").toString(), QString("ESP8266EX"));
        QCOMPARE(document.value("stub").toString(), QString("../loaders/stub.elf"));
        const QJsonArray sections = document.value("sections").toArray();
        QCOMPARE(sections.size(), 3);
        QCOMPARE(sections.at(0).toObject().value("md5").toString(), md5Hex(firmware));
        QCOMPARE(sections.at(0).toObject().value("file").toString(), QString("fw.img"));
        QVERIFY(sections.at(0).toObject().contains("options"));
        QCOMPARE(sections.at(1).toObject().value("md5").toString(), md5Hex(application));
        QCOMPARE(sections.at(1).toObject().value("file").toString(), QString("images/app.img"));
        QCOMPARE(sections.at(1).toObject().value("address").toString(), QString("0x00010000"));
        QVERIFY(!sections.at(1).toObject().contains("options"));
        // A file that cannot be read has no digest.
        QCOMPARE(sections.at(2).toObject().value("md5").toString(), QString());

        // What is saved loads again, strictly, once the unreadable row is gone.
        QJsonObject reloaded = document;
        QJsonArray kept = sections;
        kept.removeLast();
        reloaded["sections"] = kept;
        const QString scatterPath = path("read/scatter.txt");
        QString error;
        QVERIFY(ScatterWriter::save(scatterPath, reloaded, &error));
        QFile file(scatterPath);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray text = file.readAll();
        QVERIFY(text.contains("\n    \"")); // indented
        QJsonObject parsed = QJsonDocument::fromJson(text).object();
        QCOMPARE(parsed, reloaded);
        ScatterValidator validator("ESP8266EX / 00a1b2c3", QString());
        QVERIFY2(validator.parseScatterObject(parsed, true, QFileInfo(scatterPath), &error),
                 qPrintable(error));
        QCOMPARE(QDir::cleanPath(validator.loaderText()), stub);
        QCOMPARE(validator.rows().size(), 2);
        QCOMPARE(validator.rows().at(1).endAddress, 0x10000u + 777u);
    }

    void saveReplacesContents()
    {
        const QString target = writeTestFile(m_dir.path(), "replace.txt", QByteArray(5000, 'x'));
        QString error;
        QVERIFY(ScatterWriter::save(target, QJsonObject{{"chip", "A"}}, &error));
        QFile file(target);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(QJsonDocument::fromJson(file.readAll()).object(), (QJsonObject{{"chip", "A"}}));
    }

    void saveFailure()
    {
        const QString target = path("missing-dir/scatter.txt");
        QString error;
        QVERIFY(!ScatterWriter::save(target, QJsonObject(), &error));
        QVERIFY2(error.startsWith(QString("Cannot write to %1: ").arg(target)), qPrintable(error));
        QVERIFY(error.size() > QString("Cannot write to %1: ").arg(target).size());
        QVERIFY(!QFile::exists(target));
    }
};

QTEST_GUILESS_MAIN(TestScatterWriter)
#include "tst_scatterwriter.moc"
