#include "scattertestfiles.h"

#include "flasher/esppackage.h"
#include "flasher/scatterprompts.h"
#include "flasher/scattervalidator.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString chipDescription = QStringLiteral("ESP8266EX / 00a1b2c3");
const QByteArray firmwareBytes = patternBytes(0x1234, 1);     // fw.bin
const QByteArray applicationBytes = patternBytes(1000, 2);    // every other image
const QString applicationMd5 = md5Hex(patternBytes(1000, 2)); // upper case

// Answers from preset values and records every call in order.
class FakePrompts : public ScatterPrompts
{
public:
    bool loaderAnswer = false;
    bool checksumAnswer = false;
    QString chosenLoader;
    QStringList calls; // "loader:<path>", "choose", "checksum:<path>:<md5>", "notice:<text>"
    QStringList questions;

    bool confirmMissingLoader(const QString &question, const QString &path) override
    {
        return ask("loader:" + path, question, loaderAnswer);
    }
    QString chooseLoader() override
    {
        calls << "choose";
        return chosenLoader;
    }
    bool confirmMissingChecksum(const QString &question, const QString &path,
                                const QString &md5) override
    {
        return ask(QString("checksum:%1:%2").arg(path, md5), question, checksumAnswer);
    }
    void notice(const QString &text) override { calls << "notice:" + text; }

private:
    bool ask(const QString &call, const QString &question, bool answer)
    {
        calls << call;
        questions << question;
        return answer;
    }
};

// Sections written as "type address file [key=value]..." and separated by " | ". The md5 is
// the file's unless given ("md5=" drops it); firmware gets dio / 4MB / 40m unless "freq=" says
// otherwise.
QJsonArray sections(const QString &text)
{
    QJsonArray result;
    for (const QString &part : text.split(" | ", Qt::SkipEmptyParts)) {
        const QStringList words = part.split(' ');
        QJsonObject section{{"type", words[0]}, {"address", words[1]}, {"file", words[2]}};
        section["md5"] = words[2] == "fw.bin" ? md5Hex(firmwareBytes) : applicationMd5;
        QString frequency = "40m";
        for (const QString &pair : words.mid(3)) {
            const QString key = pair.section('=', 0, 0), setting = pair.section('=', 1);
            if (key == "freq")
                frequency = setting;
            else if (setting.isEmpty())
                section.remove(key);
            else
                section[key] = setting;
        }
        if (words[0] == "firmware") {
            section["options"] = QJsonObject{
                {"flash", QJsonObject{{"mode", "dio"}, {"size", "4MB"}, {"frequency", frequency}}}};
        }
        result.append(section);
    }
    return result;
}

QJsonObject document(const QString &sectionText, const QJsonValue &chip = "ESP8266EX",
                     const QString &stub = "stub.elf")
{
    QJsonObject result{{"stub", stub}, {"sections", sections(sectionText)}};
    if (!chip.isUndefined())
        result["chip"] = chip;
    return result;
}

// The table: "file start-end" per row, "-" for a row without cells.
QString describe(const ScatterValidator &validator)
{
    QStringList rows;
    for (const ScatterSection &row : validator.rows()) {
        rows << (row.hasCells ? QString("%1 %2-%3")
                                    .arg(row.file, row.startAddressText(), row.endAddressText())
                              : QString("-"));
    }
    return rows.join(" | ");
}

} // namespace

class TestScatterValidator : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString path(const QString &name) const { return m_dir.filePath(name); }
    bool parse(ScatterValidator &validator, QJsonObject scatter, QString *error,
               bool strict = true) const
    {
        return validator.parseScatterObject(scatter, strict, QFileInfo(path("scatter.txt")), error);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(!writeTestFile(m_dir.path(), "stub.elf", "ELF").isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "other.elf", "other").isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "fw.bin", firmwareBytes).isEmpty());
        for (const char *name : {"app.bin", "a.bin", "b.bin", "c.bin"})
            QVERIFY(!writeTestFile(m_dir.path(), name, applicationBytes).isEmpty());
        QVERIFY(QDir(m_dir.path()).mkpath("subdir"));
    }

    // Unknown section types are skipped: the table shrinks by one row each, while the other
    // sections keep their document index as row number (and fall off a table too short).
    void accepted_data()
    {
        QTest::addColumn<QString>("sections");
        QTest::addColumn<QString>("rows");
        const auto row = [](const char *name, const QString &sections, const QString &rows) {
            QTest::newRow(name) << sections << rows;
        };
        const QString a = "a.bin 0x00000000-0x000003e8", b = "b.bin 0x00001000-0x000013e8";
        row("complete",
            "firmware 0x0 fw.bin | application 0X10000 app.bin md5=" + applicationMd5.toLower(),
            "fw.bin 0x00000000-0x00001234 | app.bin 0x00010000-0x000103e8");
        row("last unknown", "application 0 a.bin | application 4kb b.bin | Firmware 0x2000 c.bin",
            a + " | " + b);
        row("middle unknown", "application 0 a.bin | Firmware 0x1000 b.bin | application 0 c.bin",
            a + " | -");
        row("first unknown", "boot 0 a.bin | application 0x1000 b.bin | application 0 c.bin",
            "- | " + b);
        row("first two unknown", "boot 0 a.bin | Firmware 0 b.bin | application 0 c.bin", "-");
        row("all unknown", "boot 0 a.bin | APPLICATION 0 b.bin", "");
        row("size key", "application 0x1000 b.bin size=0x100", "b.bin 0x00001000-0x00001100");
        row("end wraps at 4 GiB", "application 0xFFFFFF00 a.bin", "a.bin 0xffffff00-0x000002e8");
    }

    void accepted()
    {
        QFETCH(QString, sections);
        QFETCH(QString, rows);
        QStringList notices;
        for (const QJsonValue &section : ::sections(sections)) {
            const QString type = section.toObject().value("type").toString();
            if (type != "application" && type != "firmware")
                notices << "notice:Skip unknown scatter section " + type;
        }
        FakePrompts prompts;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QVERIFY2(parse(validator, document(sections), &error), qPrintable(error));
        QCOMPARE(prompts.calls, notices);
        QCOMPARE(describe(validator), rows);
        QCOMPARE(validator.loaderText(), path("stub.elf"));
    }

    // Strict loads that fail, each after a good load by the same validator. "none": the table
    // is to stay as it was; otherwise the rows left in it.
    void refused_data()
    {
        QTest::addColumn<QJsonObject>("scatter");
        QTest::addColumn<QString>("expectedError");
        QTest::addColumn<QString>("rows");
        const auto row = [](const char *name, const QJsonObject &scatter, const QString &error,
                            const QString &rows) {
            QTest::newRow(name) << scatter << error << rows;
        };
        const QString otherChip = "This scatter file belongs to a different chip (%1 vs %2)";
        const QString app = "application 0x0 app.bin";
        row("other chip", document(app, "ESP8285"), otherChip.arg("ESP8285", chipDescription),
            "none");
        row("no chip", document(app, QJsonValue::Undefined), otherChip.arg("", chipDescription),
            "none");
        row("full description is no chip name", document(app, chipDescription),
            otherChip.arg(chipDescription, chipDescription), "none");
        row("no sections", document(""),
            "This scatter file is invalid (no section definitions present)", "none");
        row("absent file", document("application 0 none.bin"),
            "File none.bin (application) does not exist", "-");
        row("directory", document("firmware 0 subdir"), "File subdir (firmware) does not exist",
            "-");
        row("unknown type still needs its file", document("boot 0 gone.bin"),
            "File gone.bin (boot) does not exist", "-");
        row("rows filled so far stay",
            document("application 0 a.bin | application nowhere b.bin | application 0 c.bin"),
            "Section application address nowhere is invalid",
            "a.bin 0x00000000-0x000003e8 | - | -");
        row("firmware options missing", document("firmware 0 fw.bin freq="),
            "Mandatory firmware options are missing", "-");
        row("md5 differs", document("application 0 app.bin md5=0123"),
            "The data within the package is corrupted (saved md5 0123 does not match the "
            "computed one " +
                applicationMd5 + " for file " + path("app.bin") + ")",
            "-");
        row("no md5, nobody to ask", document("application 0 app.bin md5="),
            "No saved checksum for " + path("app.bin"), "-");
    }

    void refused()
    {
        QFETCH(QJsonObject, scatter);
        QFETCH(QString, expectedError);
        QFETCH(QString, rows);
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QVERIFY(parse(validator, document("firmware 0 fw.bin"), &error));
        QVERIFY(!parse(validator, scatter, &error));
        QCOMPARE(error, expectedError);
        QCOMPARE(validator.tableRebuilt(), rows != "none");
        QCOMPARE(describe(validator), rows == "none" ? QString() : rows);
    }

    void unreadableFile()
    {
        const QString locked = writeTestFile(m_dir.path(), "locked.bin", "secret");
        QVERIFY(QFile::setPermissions(locked, QFileDevice::WriteOwner));
        QString unreadable; // one that this account cannot open
        for (const QString &candidate : {locked, QString("/proc/sys/vm/drop_caches")}) {
            QFile probe(candidate);
            if (unreadable.isEmpty() && probe.exists() && !probe.open(QIODevice::ReadOnly))
                unreadable = candidate;
        }
        if (unreadable.isEmpty())
            QSKIP("This account can read every file");
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QVERIFY(!parse(validator, document("application 0 " + unreadable), &error));
        QCOMPARE(error, QString("File %1 cannot be read").arg(unreadable));
    }

    void loader_data()
    {
        QTest::addColumn<QString>("stub"); // in the document
        QTest::addColumn<bool>("strict");
        QTest::addColumn<QString>("field");
        QTest::addColumn<bool>("answer");
        QTest::addColumn<QString>("chosen");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QString>("loaderAfter"); // empty: the load fails
        const auto row = [](const char *name, const QString &stub, bool strict,
                            const QString &field, bool answer, const QString &chosen,
                            const QStringList &calls, const QString &loaderAfter) {
            QTest::newRow(name) << stub << strict << field << answer << chosen << calls
                                << loaderAfter;
        };
        const QString other = path("other.elf"), stale = "/nonexistent/loader.elf";
        const QStringList asked{"loader:" + path("subdir")}, askedAndChosen{asked[0], "choose"};
        row("document's loader wins", "stub.elf", true, other, false, "", {}, path("stub.elf"));
        row("field kept", "subdir", true, other, false, "", {}, other);
        row("a directory is no loader, No", "subdir", true, "", false, other, asked, "");
        row("Yes, chosen", "subdir", true, "", true, other, askedAndChosen, other);
        row("Yes, cancelled", "subdir", true, "", true, "", askedAndChosen, "");
        row("Yes, cancelled, stale field accepted", "subdir", true, stale, true, "", askedAndChosen,
            stale);
        row("non-strict asks no question", "subdir", false, "", false, other, {"choose"}, other);
        row("non-strict, cancelled", "subdir", false, "", false, "", {"choose"}, "");
    }

    void loader()
    {
        QFETCH(QString, stub);
        QFETCH(bool, strict);
        QFETCH(QString, field);
        QFETCH(bool, answer);
        QFETCH(QString, chosen);
        QFETCH(QStringList, calls);
        QFETCH(QString, loaderAfter);
        FakePrompts prompts;
        prompts.loaderAnswer = answer;
        prompts.chosenLoader = chosen;
        ScatterValidator validator(chipDescription, field, &prompts);
        QString error;
        QCOMPARE(
            parse(validator, document("application 0 app.bin", "ESP8266EX", stub), &error, strict),
            !loaderAfter.isEmpty());
        QCOMPARE(prompts.calls, calls);
        QCOMPARE(error, QString(loaderAfter.isEmpty() ? "The mandatory flash loader file is missing"
                                                      : ""));
        if (!loaderAfter.isEmpty())
            QCOMPARE(validator.loaderText(), loaderAfter);
        if (calls.value(0).startsWith("loader:")) {
            QCOMPARE(prompts.questions,
                     QStringList{"This scatter file does not specify a flash loader, but should. "
                                 "Or the flash loader file (" +
                                 path("subdir") + ") is missing"});
        }
    }

    void missingChecksum_data()
    {
        QTest::addColumn<bool>("answer");
        QTest::newRow("Yes") << true;
        QTest::newRow("No or timed out") << false;
    }

    void missingChecksum()
    {
        QFETCH(bool, answer);
        FakePrompts prompts;
        prompts.checksumAnswer = answer;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QCOMPARE(
            parse(validator, document("application 0 a.bin | application 0 app.bin md5="), &error),
            answer);
        const QString source = path("app.bin");
        QStringList expectedCalls{QString("checksum:%1:%2").arg(source, applicationMd5)};
        if (answer) { // the placeholder is deliberately left as it is
            expectedCalls << "notice:Proceeding without checksum verification for %1 as per "
                             "users request";
        }
        QCOMPARE(prompts.calls, expectedCalls);
        QCOMPARE(prompts.questions,
                 QStringList{QString("Section %1 is missing an md5 checksum. Proceed?<br>Current "
                                     "md5: %2")
                                 .arg(source, applicationMd5)});
        QCOMPARE(validator.rows().at(1).hasCells, answer);
        QCOMPARE(error, answer ? QString() : "No saved checksum for " + source);
    }

    // A template for reading flash: files, checksums and firmware options are not checked, a
    // different or missing chip is replaced by the connected one.
    void nonStrict()
    {
        QJsonObject scatter = document("firmware 0 flash.img freq= | application 0x2000 read.img "
                                       "md5=00 size=0x400",
                                       "ESP8285", "missing.elf");
        ScatterValidator validator(chipDescription, path("stub.elf"));
        QString error;
        QVERIFY2(validator.parseScatterObject(scatter, false, QFileInfo(path("s.txt")), &error),
                 qPrintable(error));
        QCOMPARE(scatter.value("chip").toString(), chipDescription);
        QCOMPARE(describe(validator),
                 QString("flash.img 0x00000000-0x00000000 | read.img 0x00002000-0x00002400"));
        QVERIFY(!validator.rows().at(0).kindSet); // reads as firmware all the same
        QCOMPARE(validator.rows().at(0).typeDisplayText(), QString("Firmware"));
        QVERIFY(validator.rows().at(1).md5.isEmpty());
    }

    // Documents inside a package: always strict, entries instead of files.
    void package_data()
    {
        QTest::addColumn<QString>("sections");
        QTest::addColumn<QString>("stub");
        QTest::addColumn<QString>("expectedError"); // %1: the package's zip error code
        const auto row = [](const char *name, const QString &sections, const QString &stub,
                            const QString &error) {
            QTest::newRow(name) << sections << stub << error;
        };
        const QString stub = EspPackage::stubEntryName;
        const QString app =
            " | application 0x10000 app.bin size=0x100 md5=" + applicationMd5.toLower();
        row("valid", "firmware 0 fw.bin" + app, stub, "");
        row("stub not in package", "firmware 0 fw.bin" + app, "loader.elf",
            "The mandatory flash loader file is missing");
        row("file not in package", "application 0 absent.bin", stub,
            "File absent.bin (application) does not exist");
        row("no md5, answered No", "application 0 app.bin md5=", stub,
            "No saved checksum for app.bin");
        row("firmware options still required", "firmware 0 fw.bin freq=", stub,
            "Mandatory firmware options are missing");
        row("entries of another password", "firmware 0 fw.bin", stub,
            "File fw.bin within the package cannot be read (%1)");
    }

    void package()
    {
        QFETCH(QString, sections);
        QFETCH(QString, stub);
        QFETCH(QString, expectedError);
        const QString zipPath = path(QString(QTest::currentDataTag()).remove(' ') + ".zip");
        const QByteArray password =
            expectedError.contains("%1") ? QByteArray("another") : EspPackage::password("Package");
        QVERIFY(writeTestZip(zipPath, "Package",
                             {{EspPackage::stubEntryName, "stub"},
                              {"fw.bin", firmwareBytes},
                              {"app.bin", applicationBytes}},
                             &password));
        EspPackage package(zipPath);
        QVERIFY(package.open());
        FakePrompts prompts;
        ScatterValidator validator(chipDescription, "previous.elf", &prompts);
        QString error;
        QCOMPARE(validator.parseScatterPack(document(sections, "ESP8266EX", stub), package, &error),
                 expectedError.isEmpty());
        QCOMPARE(error, expectedError.contains("%1") ? expectedError.arg(package.zipError())
                                                     : expectedError);
        QCOMPARE(prompts.calls.join(""), error.startsWith("No saved checksum")
                                             ? "checksum:app.bin:" + applicationMd5
                                             : QString());
        // The loader field changes once the loader is found.
        QCOMPARE(validator.loaderText(), stub == "loader.elf" ? "previous.elf" : stub);
        if (expectedError.isEmpty()) {
            // Without a size key the entry's uncompressed size counts.
            QCOMPARE(describe(validator),
                     QString("fw.bin 0x00000000-0x00001234 | app.bin 0x00010000-0x00010100"));
            QCOMPARE(validator.rows().at(0).source, QString("fw.bin"));
        }
    }
};

QTEST_GUILESS_MAIN(TestScatterValidator)
#include "tst_scattervalidator.moc"
