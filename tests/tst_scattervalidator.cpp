#include "fakescatterprompts.h"
#include "scattertestfiles.h"

#include "flasher/esppackage.h"
#include "flasher/scattervalidator.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTranslator>
#include <QtTest>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipnewinfo.h>

namespace {

const QString chipDescription = QStringLiteral("ESP8266EX / 00a1b2c3");

QJsonObject section(const QString &type, const QString &address, const QString &file)
{
    return QJsonObject{{"type", type}, {"address", address}, {"file", file}};
}

QJsonObject flashOptions(const QString &mode = "dio", const QString &size = "4MB",
                         const QString &frequency = "40m")
{
    return QJsonObject{
        {"flash", QJsonObject{{"mode", mode}, {"size", size}, {"frequency", frequency}}}};
}

// Marks every text of the dialog's context, to prove messages are looked up there.
class MarkingTranslator : public QTranslator
{
public:
    QString translate(const char *context, const char *sourceText, const char *, int) const override
    {
        if (qstrcmp(context, "ESPFlasher") != 0)
            return QString();
        return QStringLiteral("<tr>") + QString::fromUtf8(sourceText);
    }
    bool isEmpty() const override { return false; }
};

} // namespace

class TestScatterValidator : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_scatterPath;
    QString m_stubPath;
    QByteArray m_firmware;
    QByteArray m_application;

    QString path(const QString &name) const { return QDir(m_dir.path()).absoluteFilePath(name); }
    QFileInfo scatterInfo() const { return QFileInfo(m_scatterPath); }

    // A complete strict document: firmware at 0x0, application at 0x10000, both with md5.
    QJsonObject goodDocument() const
    {
        QJsonObject firmware = section("firmware", "0x0", "fw.bin");
        firmware["options"] = flashOptions();
        firmware["md5"] = md5Hex(m_firmware);
        QJsonObject application = section("application", "0x10000", "app.bin");
        application["md5"] = md5Hex(m_application);
        return QJsonObject{{"chip", "ESP8266EX"},
                           {"stub", "stub.elf"},
                           {"sections", QJsonArray{firmware, application}}};
    }
    QJsonObject documentWith(const QJsonArray &sections) const
    {
        QJsonObject document = goodDocument();
        document["sections"] = sections;
        return document;
    }
    QJsonObject applicationSection(const QString &address, const QString &file) const
    {
        QJsonObject result = section("application", address, file);
        result["md5"] = md5Hex(m_application);
        return result;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_firmware = patternBytes(0x1234, 1);
        m_application = patternBytes(1000, 2);
        m_scatterPath = path("scatter.txt");
        m_stubPath = writeTestFile(m_dir.path(), "stub.elf",
                                   "\x7f"
                                   "ELF stub");
        QVERIFY(!m_stubPath.isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "fw.bin", m_firmware).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "app.bin", m_application).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "a.bin", m_application).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "b.bin", m_application).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "c.bin", m_application).isEmpty());
        QVERIFY(QDir(m_dir.path()).mkpath("subdir"));
    }

    void acceptsCompleteDocument()
    {
        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QJsonObject document = goodDocument();
        QString error;
        QVERIFY2(validator.parseScatterObject(document, true, scatterInfo(), &error),
                 qPrintable(error));
        QVERIFY(prompts.calls.isEmpty());
        QCOMPARE(validator.loaderText(), m_stubPath);
        QVERIFY(validator.tableRebuilt());
        QCOMPARE(validator.rows().size(), 2);

        const ScatterSection firmware = validator.rows().at(0);
        QVERIFY(firmware.hasCells);
        QVERIFY(firmware.active);
        QCOMPARE(firmware.kind, int(ScatterSection::Firmware));
        QVERIFY(firmware.kindSet);
        QCOMPARE(firmware.typeDisplayText(), QString("Firmware"));
        QCOMPARE(firmware.startAddressText(), QString("0x00000000"));
        QCOMPARE(firmware.endAddressText(), QString("0x00001234"));
        QCOMPARE(firmware.file, QString("fw.bin"));
        QCOMPARE(firmware.source, path("fw.bin"));
        QCOMPARE(firmware.flashMode, QString("dio"));
        QCOMPARE(firmware.flashSize, QString("4MB"));
        QCOMPARE(firmware.flashFrequency, QString("40m"));
        QCOMPARE(firmware.md5, md5Hex(m_firmware));

        const ScatterSection application = validator.rows().at(1);
        QVERIFY(application.hasCells);
        QCOMPARE(application.kind, int(ScatterSection::Application));
        QCOMPARE(application.typeDisplayText(), QString("Application"));
        QCOMPARE(application.startAddress, 0x10000u);
        QCOMPARE(application.endAddress, 0x10000u + 1000u);
        QVERIFY(application.flashMode.isEmpty());
    }

    void chipCheck_data()
    {
        QTest::addColumn<QJsonValue>("chip"); // Undefined: key absent
        QTest::addColumn<bool>("strict");
        QTest::addColumn<bool>("expectOk");
        QTest::addColumn<QString>("expectedError");
        QTest::addColumn<QJsonValue>("chipAfter");

        const QString mismatch = "This scatter file belongs to a different chip (%1 vs %2)";
        QTest::newRow("same chip, strict")
            << QJsonValue("ESP8266EX") << true << true << QString() << QJsonValue("ESP8266EX");
        QTest::newRow("missing chip, strict")
            << QJsonValue(QJsonValue::Undefined) << true << false
            << mismatch.arg("", chipDescription) << QJsonValue(QJsonValue::Undefined);
        QTest::newRow("other chip, strict")
            << QJsonValue("ESP8285") << true << false << mismatch.arg("ESP8285", chipDescription)
            << QJsonValue("ESP8285");
        QTest::newRow("chip as number, strict")
            << QJsonValue(8266) << true << false << mismatch.arg("", chipDescription)
            << QJsonValue(8266);
        QTest::newRow("full description is not the name")
            << QJsonValue(chipDescription) << true << false
            << mismatch.arg(chipDescription, chipDescription) << QJsonValue(chipDescription);
        QTest::newRow("other chip, non-strict rewrites")
            << QJsonValue("ESP8285") << false << true << QString() << QJsonValue(chipDescription);
        QTest::newRow("missing chip, non-strict adds it")
            << QJsonValue(QJsonValue::Undefined) << false << true << QString()
            << QJsonValue(chipDescription);
        QTest::newRow("same chip, non-strict keeps it")
            << QJsonValue("ESP8266EX") << false << true << QString() << QJsonValue("ESP8266EX");
    }

    void chipCheck()
    {
        QFETCH(QJsonValue, chip);
        QFETCH(bool, strict);
        QFETCH(bool, expectOk);
        QFETCH(QString, expectedError);
        QFETCH(QJsonValue, chipAfter);

        QJsonObject document = goodDocument();
        document.remove("chip");
        if (!chip.isUndefined())
            document["chip"] = chip;
        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QCOMPARE(validator.parseScatterObject(document, strict, scatterInfo(), &error), expectOk);
        QCOMPARE(error, expectedError);
        QCOMPARE(document.value("chip"), chipAfter);
        QCOMPARE(validator.tableRebuilt(), expectOk);
        QVERIFY(prompts.calls.isEmpty());
    }

    void chipNameIsTrimmedFirstPart()
    {
        ScatterValidator validator("  ESP8285 /x/y", QString());
        QJsonObject document = goodDocument();
        document["chip"] = "ESP8285";
        QString error;
        QVERIFY2(validator.parseScatterObject(document, true, scatterInfo(), &error),
                 qPrintable(error));
    }

    void loaderKeptFromField()
    {
        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, m_stubPath, &prompts);
        QJsonObject document = goodDocument();
        document.remove("stub");
        QString error;
        QVERIFY2(validator.parseScatterObject(document, true, scatterInfo(), &error),
                 qPrintable(error));
        QCOMPARE(validator.loaderText(), m_stubPath);
        QVERIFY(prompts.calls.isEmpty());
    }

    void loaderFromDocumentWinsOverField()
    {
        const QString other = writeTestFile(m_dir.path(), "other.elf", "other");
        ScatterValidator validator(chipDescription, other);
        QJsonObject document = goodDocument();
        QString error;
        QVERIFY2(validator.parseScatterObject(document, true, scatterInfo(), &error),
                 qPrintable(error));
        QCOMPARE(validator.loaderText(), m_stubPath);
    }

    void missingLoader_data()
    {
        QTest::addColumn<bool>("strict");
        QTest::addColumn<QString>("field");
        QTest::addColumn<bool>("answer");
        QTest::addColumn<QString>("chosen");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<bool>("expectOk");
        QTest::addColumn<QString>("loaderAfter");

        const QString missing = "/nonexistent/dir/loader.elf";
        const QString asked = "loader:" + path("missing.elf");
        QTest::newRow("strict, answered No")
            << true << QString() << false << m_stubPath << QStringList{asked} << false << QString();
        QTest::newRow("strict, Yes, loader chosen")
            << true << QString() << true << m_stubPath << QStringList{asked, "choose"} << true
            << m_stubPath;
        QTest::newRow("strict, Yes, chooser cancelled")
            << true << QString() << true << QString() << QStringList{asked, "choose"} << false
            << QString();
        QTest::newRow("strict, Yes, cancelled, stale field accepted")
            << true << missing << true << QString() << QStringList{asked, "choose"} << true
            << missing;
        QTest::newRow("non-strict asks no question") << false << QString() << false << m_stubPath
                                                     << QStringList{"choose"} << true << m_stubPath;
        QTest::newRow("non-strict, chooser cancelled")
            << false << QString() << false << QString() << QStringList{"choose"} << false
            << QString();
    }

    void missingLoader()
    {
        QFETCH(bool, strict);
        QFETCH(QString, field);
        QFETCH(bool, answer);
        QFETCH(QString, chosen);
        QFETCH(QStringList, calls);
        QFETCH(bool, expectOk);
        QFETCH(QString, loaderAfter);

        FakeScatterPrompts prompts;
        prompts.loaderAnswer = answer;
        prompts.chosenLoader = chosen;
        ScatterValidator validator(chipDescription, field, &prompts);
        QJsonObject document = goodDocument();
        document["stub"] = "missing.elf";
        QString error;
        QCOMPARE(validator.parseScatterObject(document, strict, scatterInfo(), &error), expectOk);
        QCOMPARE(prompts.calls, calls);
        QCOMPARE(validator.loaderText(), loaderAfter);
        if (!expectOk) {
            QCOMPARE(error, QString("The mandatory flash loader file is missing"));
            QVERIFY(!validator.tableRebuilt());
        }
        if (strict) {
            QCOMPARE(prompts.questions.value(0),
                     QString("This scatter file does not specify a flash loader, but should. Or "
                             "the flash loader file (%1) is missing")
                         .arg(path("missing.elf")));
        }
    }

    void loaderQuestionWithoutPromptsFails()
    {
        ScatterValidator validator(chipDescription, QString(), nullptr);
        QJsonObject document = goodDocument();
        document.remove("stub");
        QString error;
        QVERIFY(!validator.parseScatterObject(document, true, scatterInfo(), &error));
        QCOMPARE(error, QString("The mandatory flash loader file is missing"));
    }

    void loaderThatIsADirectoryIsMissing()
    {
        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QJsonObject document = goodDocument();
        document["stub"] = "subdir";
        QString error;
        QVERIFY(!validator.parseScatterObject(document, true, scatterInfo(), &error));
        QCOMPARE(prompts.calls, QStringList{"loader:" + path("subdir")});
    }

    void noSections_data()
    {
        QTest::addColumn<QJsonValue>("sections");
        QTest::newRow("absent") << QJsonValue(QJsonValue::Undefined);
        QTest::newRow("empty array") << QJsonValue(QJsonArray());
        QTest::newRow("string") << QJsonValue("fw.bin");
        QTest::newRow("object") << QJsonValue(section("application", "0x0", "app.bin"));
    }

    void noSections()
    {
        QFETCH(QJsonValue, sections);
        QJsonObject document = goodDocument();
        document.remove("sections");
        if (!sections.isUndefined())
            document["sections"] = sections;
        for (const bool strict : {true, false}) {
            ScatterValidator validator(chipDescription, QString());
            QString error;
            QVERIFY(!validator.parseScatterObject(document, strict, scatterInfo(), &error));
            QCOMPARE(error, QString("This scatter file is invalid (no section definitions "
                                    "present)"));
            QVERIFY(!validator.tableRebuilt());
        }
    }

    void missingFile_data()
    {
        QTest::addColumn<QJsonObject>("entry");
        QTest::addColumn<QString>("expectedError");
        QTest::newRow("absent file") << section("application", "0x0", "nothere.bin")
                                     << "File nothere.bin (application) does not exist";
        QTest::newRow("directory")
            << section("firmware", "0x0", "subdir") << "File subdir (firmware) does not exist";
        QTest::newRow("no file key") << QJsonObject{{"type", "application"}, {"address", "0x0"}}
                                     << "File  (application) does not exist";
        // The file is checked before the type: an unknown section still needs its file.
        QTest::newRow("unknown type") << section("bootloader", "0x0", "gone.bin")
                                      << "File gone.bin (bootloader) does not exist";
    }

    void missingFile()
    {
        QFETCH(QJsonObject, entry);
        QFETCH(QString, expectedError);
        QJsonObject document = documentWith(QJsonArray{entry});
        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QVERIFY(!validator.parseScatterObject(document, true, scatterInfo(), &error));
        QCOMPARE(error, expectedError);
        QVERIFY(validator.tableRebuilt());
        QCOMPARE(validator.rows().size(), 1);
        QVERIFY(!validator.rows().at(0).hasCells);
    }

    void nonStrictIgnoresFilesAndChecksums()
    {
        QJsonObject entry = section("application", "0x2000", "will-be-read.img");
        entry["md5"] = "00000000000000000000000000000000";
        entry["size"] = "0x400";
        QJsonObject firmware = section("firmware", "0x0", "flash.img");
        QJsonObject document{{"sections", QJsonArray{firmware, entry}}};
        FakeScatterPrompts prompts;
        prompts.chosenLoader = m_stubPath;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QVERIFY2(validator.parseScatterObject(document, false, scatterInfo(), &error),
                 qPrintable(error));
        QCOMPARE(prompts.calls, QStringList{"choose"});
        QCOMPARE(validator.rows().size(), 2);
        const ScatterSection first = validator.rows().at(0);
        QVERIFY(first.hasCells);
        QVERIFY(!first.kindSet); // firmware kind left unset, reads as firmware
        QCOMPARE(first.kind, int(ScatterSection::Firmware));
        QCOMPARE(first.typeDisplayText(), QString("Firmware"));
        QVERIFY(first.flashMode.isEmpty());
        QCOMPARE(first.endAddress, 0u); // no file yet: length 0
        const ScatterSection second = validator.rows().at(1);
        QVERIFY(second.kindSet);
        QCOMPARE(second.kind, int(ScatterSection::Application));
        QCOMPARE(second.endAddressText(), QString("0x00002400"));
        QVERIFY(second.md5.isEmpty()); // checksums are neither checked nor kept
        QCOMPARE(second.source, path("will-be-read.img"));
    }

    void wizardObjectWithoutScatterFile()
    {
        // What the scatter composer hands over: sections only, no chip, no stub, no file yet.
        QJsonObject region{{"type", "application"},
                           {"address", "0x00010000"},
                           {"size", "4096"},
                           {"file", "region1.img"}};
        QJsonObject document{{"sections", QJsonArray{region}}};
        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, m_stubPath, &prompts);
        QString error;
        QVERIFY2(validator.parseScatterObject(document, false, QFileInfo(), &error),
                 qPrintable(error));
        QVERIFY(prompts.calls.isEmpty()); // the loader field already names an existing file
        QCOMPARE(document.value("chip").toString(), chipDescription);
        QCOMPARE(validator.rows().size(), 1);
        QCOMPARE(validator.rows().at(0).endAddressText(), QString("0x00011000"));
        QVERIFY(QFileInfo(validator.rows().at(0).source).isAbsolute());
    }

    void address_data()
    {
        QTest::addColumn<QJsonValue>("address");
        QTest::addColumn<bool>("expectOk");
        QTest::addColumn<QString>("startText");

        QTest::newRow("hex") << QJsonValue("0x1000") << true << "0x00001000";
        QTest::newRow("decimal") << QJsonValue("4096") << true << "0x00001000";
        QTest::newRow("octal") << QJsonValue("010000") << true << "0x00001000";
        QTest::newRow("kb suffix") << QJsonValue("4kb") << true << "0x00001000";
        QTest::newRow("upper-case hex prefix") << QJsonValue("0X3FC000") << true << "0x003fc000";
        QTest::newRow("JSON number") << QJsonValue(4096) << false << QString();
        QTest::newRow("garbage") << QJsonValue("zz") << false << QString();
        QTest::newRow("empty") << QJsonValue("") << false << QString();
        QTest::newRow("bare prefix") << QJsonValue("0x") << false << QString();
        QTest::newRow("negative") << QJsonValue("-1") << false << QString();
        QTest::newRow("absent") << QJsonValue(QJsonValue::Undefined) << false << QString();
    }

    void address()
    {
        QFETCH(QJsonValue, address);
        QFETCH(bool, expectOk);
        QFETCH(QString, startText);

        QJsonObject entry = applicationSection("", "app.bin");
        entry.remove("address");
        if (!address.isUndefined())
            entry["address"] = address;
        QJsonObject document = documentWith(QJsonArray{entry});
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QCOMPARE(validator.parseScatterObject(document, true, scatterInfo(), &error), expectOk);
        if (expectOk) {
            QCOMPARE(validator.rows().at(0).startAddressText(), startText);
        } else {
            QCOMPARE(error,
                     QString("Section application address %1 is invalid").arg(address.toString()));
        }
    }

    void firmwareOptions_data()
    {
        QTest::addColumn<QJsonValue>("options");
        QTest::newRow("absent") << QJsonValue(QJsonValue::Undefined);
        QTest::newRow("not an object") << QJsonValue("dio");
        QTest::newRow("no flash object") << QJsonValue(QJsonObject{{"mode", "dio"}});
        QTest::newRow("empty mode") << QJsonValue(flashOptions("", "4MB", "40m"));
        QTest::newRow("empty size") << QJsonValue(flashOptions("dio", "", "40m"));
        QTest::newRow("empty frequency") << QJsonValue(flashOptions("dio", "4MB", ""));
        QTest::newRow("size as number") << QJsonValue(QJsonObject{
            {"flash", QJsonObject{{"mode", "dio"}, {"size", 4}, {"frequency", "40m"}}}});
    }

    void firmwareOptions()
    {
        QFETCH(QJsonValue, options);
        QJsonObject entry = section("firmware", "0x0", "fw.bin");
        entry["md5"] = md5Hex(m_firmware);
        if (!options.isUndefined())
            entry["options"] = options;
        QJsonObject document = documentWith(QJsonArray{entry});
        ScatterValidator strictValidator(chipDescription, QString());
        QString error;
        QVERIFY(!strictValidator.parseScatterObject(document, true, scatterInfo(), &error));
        QCOMPARE(error, QString("Mandatory firmware options are missing"));

        ScatterValidator lenientValidator(chipDescription, m_stubPath);
        error.clear();
        QVERIFY2(lenientValidator.parseScatterObject(document, false, scatterInfo(), &error),
                 qPrintable(error));
        QCOMPARE(lenientValidator.rows().size(), 1);
        QVERIFY(lenientValidator.rows().at(0).hasCells);
    }

    void checksumMismatch_data()
    {
        QTest::addColumn<QJsonValue>("saved");
        QTest::newRow("other digest") << QJsonValue("0123456789ABCDEF0123456789ABCDEF");
        QTest::newRow("empty text") << QJsonValue("");
        QTest::newRow("number") << QJsonValue(1234);
        QTest::newRow("truncated") << QJsonValue(md5Hex(patternBytes(1000, 2)).left(31));
    }

    void checksumMismatch()
    {
        QFETCH(QJsonValue, saved);
        QJsonObject entry = applicationSection("0x0", "app.bin");
        entry["md5"] = saved;
        QJsonObject document = documentWith(QJsonArray{entry});
        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QVERIFY(!validator.parseScatterObject(document, true, scatterInfo(), &error));
        QCOMPARE(error, QString("The data within the package is corrupted (saved md5 %1 does not "
                                "match the computed one %2 for file %3)")
                            .arg(saved.toString(), md5Hex(m_application), path("app.bin")));
        QVERIFY(prompts.calls.isEmpty());
        QVERIFY(!validator.rows().at(0).hasCells);
    }

    void lowerCaseChecksumMatches()
    {
        QJsonObject entry = applicationSection("0x0", "app.bin");
        entry["md5"] = md5Hex(m_application).toLower();
        QJsonObject document = documentWith(QJsonArray{entry});
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QVERIFY2(validator.parseScatterObject(document, true, scatterInfo(), &error),
                 qPrintable(error));
        QCOMPARE(validator.rows().at(0).md5, md5Hex(m_application).toLower());
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
        QJsonObject first = applicationSection("0x0", "a.bin");
        QJsonObject second = section("application", "0x1000", "app.bin");
        QJsonObject document = documentWith(QJsonArray{first, second});
        FakeScatterPrompts prompts;
        prompts.checksumAnswer = answer;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QCOMPARE(validator.parseScatterObject(document, true, scatterInfo(), &error), answer);

        const QString source = path("app.bin");
        const QString digest = md5Hex(m_application);
        QStringList expectedCalls{QString("checksum:%1:%2").arg(source, digest)};
        if (answer) {
            // The placeholder is deliberately left as it is.
            expectedCalls << "notice:Proceeding without checksum verification for %1 as per "
                             "users request";
        }
        QCOMPARE(prompts.calls, expectedCalls);
        QCOMPARE(prompts.questions,
                 QStringList{QString("Section %1 is missing an md5 checksum. Proceed?<br>Current "
                                     "md5: %2")
                                 .arg(source, digest)});
        QCOMPARE(validator.rows().size(), 2);
        QVERIFY(validator.rows().at(0).hasCells);
        QCOMPARE(validator.rows().at(1).hasCells, answer);
        if (answer) {
            QVERIFY(validator.rows().at(1).md5.isEmpty());
            QVERIFY(error.isEmpty());
        } else {
            QCOMPARE(error, QString("No saved checksum for %1").arg(source));
        }
    }

    void missingChecksumWithoutPromptsFails()
    {
        QJsonObject document = documentWith(QJsonArray{section("application", "0x0", "app.bin")});
        ScatterValidator validator(chipDescription, m_stubPath, nullptr);
        QString error;
        QVERIFY(!validator.parseScatterObject(document, true, scatterInfo(), &error));
        QCOMPARE(error, QString("No saved checksum for %1").arg(path("app.bin")));
    }

    void unreadableFile()
    {
        const QString locked = writeTestFile(m_dir.path(), "locked.bin", "secret");
        QVERIFY(QFile::setPermissions(locked, QFileDevice::WriteOwner));
        QFile probe(locked);
        if (probe.open(QIODevice::ReadOnly))
            QSKIP("This account reads files without read permission (root)");
        QJsonObject entry = section("application", "0x0", "locked.bin");
        entry["md5"] = md5Hex("secret");
        QJsonObject document = documentWith(QJsonArray{entry});
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QVERIFY(!validator.parseScatterObject(document, true, scatterInfo(), &error));
        QCOMPARE(error, QString("File %1 cannot be read").arg(locked));
    }

    void skippedSectionShapes_data()
    {
        QTest::addColumn<QStringList>("types");
        // One entry per table row: the file shown, or "-" for a row without cells.
        QTest::addColumn<QStringList>("shape");

        QTest::newRow("all known") << QStringList{"application", "application", "application"}
                                   << QStringList{"a.bin", "b.bin", "c.bin"};
        QTest::newRow("last unknown") << QStringList{"application", "application", "Firmware"}
                                      << QStringList{"a.bin", "b.bin"};
        QTest::newRow("middle unknown")
            << QStringList{"application", "Firmware", "application"} << QStringList{"a.bin", "-"};
        QTest::newRow("first unknown")
            << QStringList{"Firmware", "application", "application"} << QStringList{"-", "b.bin"};
        QTest::newRow("first two unknown")
            << QStringList{"boot", "Firmware", "application"} << QStringList{"-"};
        QTest::newRow("all unknown")
            << QStringList{"boot", "Firmware", "APPLICATION"} << QStringList{};
    }

    void skippedSectionShapes()
    {
        QFETCH(QStringList, types);
        QFETCH(QStringList, shape);
        const QStringList files{"a.bin", "b.bin", "c.bin"};
        QJsonArray sections;
        QStringList expectedNotices;
        for (int i = 0; i < types.size(); ++i) {
            QJsonObject entry =
                applicationSection(QString("0x%1").arg(i * 0x1000, 0, 16), files[i]);
            entry["type"] = types[i];
            sections.append(entry);
            if (types[i] != "application")
                expectedNotices << "Skip unknown scatter section " + types[i];
        }
        QJsonObject document = documentWith(sections);
        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QVERIFY2(validator.parseScatterObject(document, true, scatterInfo(), &error),
                 qPrintable(error));
        QCOMPARE(prompts.notices, expectedNotices);

        QStringList actual;
        for (const ScatterSection &row : validator.rows())
            actual << (row.hasCells ? row.file : QString("-"));
        QCOMPARE(actual, shape);
        // A row keeps the section of its own document index.
        for (int i = 0; i < validator.rows().size(); ++i) {
            if (validator.rows().at(i).hasCells)
                QCOMPARE(validator.rows().at(i).startAddress, quint32(i * 0x1000));
        }
    }

    void endAddress_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QJsonValue>("size");
        QTest::addColumn<QString>("endText");

        QTest::newRow("size key") << "0x1000" << QJsonValue("0x100") << "0x00001100";
        QTest::newRow("size in kb") << "0x1000" << QJsonValue("1kb") << "0x00001400";
        QTest::newRow("file size")
            << "0x1000" << QJsonValue(QJsonValue::Undefined) << "0x000013e8"; // 1000 bytes
        QTest::newRow("size key smaller than file") << "0" << QJsonValue("16") << "0x00000010";
        QTest::newRow("size as number counts as 0") << "0x1000" << QJsonValue(256) << "0x00001000";
        QTest::newRow("wraps at 4 GiB") << "0xFFFFFF00" << QJsonValue("0x200") << "0x00000100";
    }

    void endAddress()
    {
        QFETCH(QString, address);
        QFETCH(QJsonValue, size);
        QFETCH(QString, endText);
        QJsonObject entry = applicationSection(address, "app.bin");
        if (!size.isUndefined())
            entry["size"] = size;
        QJsonObject document = documentWith(QJsonArray{entry});
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QVERIFY2(validator.parseScatterObject(document, true, scatterInfo(), &error),
                 qPrintable(error));
        QCOMPARE(validator.rows().at(0).endAddressText(), endText);
    }

    void failureKeepsRowsFilledSoFar()
    {
        QJsonObject bad = applicationSection("0x2000", "b.bin");
        bad["address"] = "nowhere";
        QJsonObject document = documentWith(QJsonArray{applicationSection("0x0", "a.bin"), bad,
                                                       applicationSection("0x4000", "c.bin")});
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QVERIFY(!validator.parseScatterObject(document, true, scatterInfo(), &error));
        QCOMPARE(error, QString("Section application address nowhere is invalid"));
        QVERIFY(validator.tableRebuilt());
        QCOMPARE(validator.rows().size(), 3);
        QVERIFY(validator.rows().at(0).hasCells);
        QVERIFY(!validator.rows().at(1).hasCells);
        QVERIFY(!validator.rows().at(2).hasCells);
    }

    void reuseStartsFromScratch()
    {
        ScatterValidator validator(chipDescription, QString());
        QJsonObject good = goodDocument();
        QString error;
        QVERIFY(validator.parseScatterObject(good, true, scatterInfo(), &error));
        QCOMPARE(validator.rows().size(), 2);
        QJsonObject other = goodDocument();
        other["chip"] = "ESP32";
        QVERIFY(!validator.parseScatterObject(other, true, scatterInfo(), &error));
        QVERIFY(!validator.tableRebuilt());
        QVERIFY(validator.rows().isEmpty());
        QCOMPARE(validator.loaderText(), m_stubPath); // the field keeps what the last load set
    }

    void textsComeFromTheDialogContext()
    {
        MarkingTranslator translator;
        QVERIFY(QCoreApplication::installTranslator(&translator));
        QJsonObject document = goodDocument();
        document["chip"] = "ESP8285";
        ScatterValidator validator(chipDescription, QString());
        QString error;
        const bool ok = validator.parseScatterObject(document, true, scatterInfo(), &error);
        ScatterSection row;
        row.typeKey = "Application";
        const QString typeText = row.typeDisplayText();
        QCoreApplication::removeTranslator(&translator);
        QVERIFY(!ok);
        QCOMPARE(error, QString("<tr>This scatter file belongs to a different chip (ESP8285 vs %1)")
                            .arg(chipDescription));
        QCOMPARE(typeText, QString("<tr>Application"));
    }

    // ---- documents inside a package ----

    void package_data()
    {
        QTest::addColumn<QString>("mutation");
        QTest::addColumn<QString>("expectedError");

        QTest::newRow("valid") << ""
                               << "";
        QTest::newRow("other chip")
            << "chip"
            << "This scatter file belongs to a different chip (ESP8285 vs " + chipDescription + ")";
        QTest::newRow("stub not in package") << "stub"
                                             << "The mandatory flash loader file is missing";
        QTest::newRow("file not in package") << "file"
                                             << "File absent.bin (application) does not exist";
        QTest::newRow("md5 mismatch") << "md5"
                                      << "The data within the package is corrupted (saved md5 "
                                         "0123456789ABCDEF0123456789ABCDEF "
                                         "does not match the computed one " +
                                             md5Hex(patternBytes(1000, 2)) + " for file app.bin)";
        QTest::newRow("firmware options always required")
            << "options"
            << "Mandatory firmware options are missing";
        QTest::newRow("bad address") << "address"
                                     << "Section application address 0xZZ is invalid";
    }

    void package()
    {
        QFETCH(QString, mutation);
        QFETCH(QString, expectedError);

        QJsonObject firmware = section("firmware", "0x0", "fw.bin");
        firmware["options"] = flashOptions();
        firmware["md5"] = md5Hex(m_firmware);
        QJsonObject application = section("application", "0x10000", "app.bin");
        application["md5"] = md5Hex(m_application).toLower();
        QJsonObject document{{"chip", "ESP8266EX"}, {"stub", EspPackage::stubEntryName}};
        if (mutation == "chip")
            document["chip"] = "ESP8285";
        if (mutation == "stub")
            document["stub"] = "loader.elf";
        if (mutation == "file")
            application["file"] = "absent.bin";
        if (mutation == "md5")
            application["md5"] = "0123456789ABCDEF0123456789ABCDEF";
        if (mutation == "options")
            firmware.remove("options");
        if (mutation == "address")
            application["address"] = "0xZZ";
        document["sections"] = QJsonArray{firmware, application};

        const QString zipPath = path("package-" + mutation + ".zip");
        const QString comment = "Package for tests";
        const QByteArray password = EspPackage::password(comment);
        QVERIFY(writeTestZip(zipPath, comment,
                             {{EspPackage::stubEntryName, "stub bytes"},
                              {"fw.bin", m_firmware},
                              {"app.bin", m_application}},
                             &password));
        EspPackage package(zipPath);
        QVERIFY(package.open());

        FakeScatterPrompts prompts;
        ScatterValidator validator(chipDescription, "previous.elf", &prompts);
        QString error;
        const bool ok = validator.parseScatterPack(document, package, &error);
        QCOMPARE(error, expectedError);
        QCOMPARE(ok, expectedError.isEmpty());
        QVERIFY(prompts.calls.isEmpty());
        if (mutation == "chip" || mutation == "stub") {
            QCOMPARE(validator.loaderText(), QString("previous.elf"));
            return;
        }
        QCOMPARE(validator.loaderText(), QString(EspPackage::stubEntryName));
        if (!ok)
            return;
        QCOMPARE(validator.rows().size(), 2);
        const ScatterSection fw = validator.rows().at(0);
        QCOMPARE(fw.source, QString("fw.bin"));
        QCOMPARE(fw.endAddress, quint32(m_firmware.size())); // the entry's uncompressed size
        QCOMPARE(fw.flashFrequency, QString("40m"));
        QVERIFY(fw.kindSet);
        const ScatterSection app = validator.rows().at(1);
        QCOMPARE(app.endAddress, 0x10000u + 1000u);
        QCOMPARE(app.md5, md5Hex(m_application).toLower());
    }

    void packageSizeKeyAndMissingChecksum_data()
    {
        QTest::addColumn<bool>("answer");
        QTest::newRow("Yes") << true;
        QTest::newRow("No") << false;
    }

    void packageSizeKeyAndMissingChecksum()
    {
        QFETCH(bool, answer);
        const QString zipPath = path(QString("nomd5-%1.zip").arg(answer));
        const QByteArray password = EspPackage::password(QString());
        QVERIFY(writeTestZip(zipPath, QString(),
                             {{EspPackage::stubEntryName, "stub"}, {"app.bin", m_application}},
                             &password));
        EspPackage package(zipPath);
        QVERIFY(package.open());
        QJsonObject application = section("application", "0x1000", "app.bin");
        application["size"] = "0x100";
        QJsonObject document{{"chip", "ESP8266EX"},
                             {"stub", EspPackage::stubEntryName},
                             {"sections", QJsonArray{application}}};
        FakeScatterPrompts prompts;
        prompts.checksumAnswer = answer;
        ScatterValidator validator(chipDescription, QString(), &prompts);
        QString error;
        QCOMPARE(validator.parseScatterPack(document, package, &error), answer);
        QCOMPARE(prompts.calls.value(0), QString("checksum:app.bin:%1").arg(md5Hex(m_application)));
        if (answer) {
            QCOMPARE(validator.rows().at(0).endAddressText(), QString("0x00001100"));
        } else {
            QCOMPARE(error, QString("No saved checksum for app.bin"));
        }
    }

    void packageEntryWithForeignPassword()
    {
        const QString zipPath = path("foreign.zip");
        const QByteArray ours = EspPackage::password("Foreign");
        const QByteArray theirs = "not the package password";
        // The stub is readable (ours), the image was protected with another password.
        QuaZip zip(zipPath);
        QVERIFY(zip.open(QuaZip::mdCreate));
        zip.setComment("Foreign");
        for (const auto &entry :
             ZipEntries{{EspPackage::stubEntryName, "stub"}, {"app.bin", m_application}}) {
            QuaZipFile file(&zip);
            const QByteArray &key = entry.first == "app.bin" ? theirs : ours;
            QVERIFY(file.open(QIODevice::WriteOnly, QuaZipNewInfo(entry.first), key.constData()));
            QCOMPARE(file.write(entry.second), qint64(entry.second.size()));
            file.close();
        }
        zip.close();

        EspPackage package(zipPath);
        QVERIFY(package.open());
        QJsonObject application = section("application", "0x0", "app.bin");
        application["md5"] = md5Hex(m_application);
        QJsonObject document{{"chip", "ESP8266EX"},
                             {"stub", EspPackage::stubEntryName},
                             {"sections", QJsonArray{application}}};
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QVERIFY(!validator.parseScatterPack(document, package, &error));
        QCOMPARE(
            error,
            QString("File app.bin within the package cannot be read (%1)").arg(package.zipError()));
        QVERIFY(package.zipError() != 0);
    }
};

QTEST_GUILESS_MAIN(TestScatterValidator)
#include "tst_scattervalidator.moc"
