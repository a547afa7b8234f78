#include "scattertestfiles.h"

#include "flasher/scatterprompts.h"
#include "flasher/scattervalidator.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString chipDescription = QStringLiteral("ESP8266EX / 00a1b2c3");
const QByteArray firmwareBytes = patternBytes(0x1234, 1);  // fw.bin
const QByteArray applicationBytes = patternBytes(1000, 2); // every other image
const QString applicationMd5 = md5Hex(applicationBytes);   // upper case

// Answers from a script, in order ("Yes" or the loader chosen; anything else is No), and
// records each call as "<call> -> <answer>".
struct FakePrompts : ScatterPrompts
{
    QStringList script, calls;

    QString answer(const QString &call)
    {
        const QString given = script.isEmpty() ? QString() : script.takeFirst();
        calls << call + " -> " + given;
        return given;
    }
    bool confirmMissingLoader(const QString &question, const QString &path) override
    {
        return answer(QString("loader %1: %2").arg(path, question)) == "Yes";
    }
    QString chooseLoader() override { return answer("choose"); }
    bool confirmMissingChecksum(const QString &, const QString &, const QString &) override
    {
        return false; // the loads here ask none (the dialog's tests answer them)
    }
    bool confirmFlashSize(const QString &question) override
    {
        return answer("flash size: " + question) == "Yes";
    }
    void notice(const QString &text) override { calls << "notice:" + text; }
};

// Sections written as "type address file [key=value]..." and separated by " | ". The md5 is
// the file's and firmware gets dio / 4MB / 40m unless a key says otherwise ("key=" drops it);
// mode, flashsize and frequency set the flash options.
QJsonArray sections(const QString &text)
{
    QJsonArray result;
    for (const QString &part : text.split(" | ", Qt::SkipEmptyParts)) {
        const QStringList words = part.split(' ');
        QJsonObject section{{"type", words[0]}, {"address", words[1]}, {"file", words[2]}};
        section["md5"] = words[2] == "fw.bin" ? md5Hex(firmwareBytes) : applicationMd5;
        if (words[0] == "firmware") {
            section["options"] = QJsonObject{
                {"flash", QJsonObject{{"mode", "dio"}, {"size", "4MB"}, {"frequency", "40m"}}}};
        }
        for (const QString &pair : words.mid(3)) {
            const QString key = pair.section('=', 0, 0), setting = pair.section('=', 1);
            if (key == "mode" || key == "flashsize" || key == "frequency") {
                QJsonObject flash = section["options"].toObject()["flash"].toObject();
                flash[key == "flashsize" ? "size" : key] = setting;
                section["options"] = QJsonObject{{"flash", flash}};
            } else if (setting.isEmpty())
                section.remove(key);
            else
                section[key] = setting;
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
        QVERIFY(m_dir.isValid() && QDir(m_dir.path()).mkpath("subdir"));
        QVERIFY(!writeTestFile(m_dir.path(), "fw.bin", firmwareBytes).isEmpty());
        for (const char *name : {"stub.elf", "other.elf", "app.bin", "a.bin", "b.bin", "c.bin"})
            QVERIFY(!writeTestFile(m_dir.path(), name, applicationBytes).isEmpty());
    }

    // Each load follows a good one. Unknown section types are skipped: the table shrinks by a row
    // each, the other sections keep their index as row number (falling off a table too short).
    // A refused load leaves the rows filled so far, or the table as it was ("none").
    void load_data()
    {
        QTest::addColumn<QJsonObject>("scatter");
        QTest::addColumn<QString>("expectedError"); // empty: loads
        QTest::addColumn<QString>("rows");
        const auto row = [](const char *name, const QString &sections, const QString &rows,
                            const QString &error = QString(),
                            const QJsonValue &chip = "ESP8266EX") {
            QTest::newRow(name) << document(sections, chip) << error << rows;
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

        const QString otherChip = "This scatter file belongs to a different chip (%1 vs %2)";
        const QString app = "application 0x0 app.bin";
        row("other chip", app, "none", otherChip.arg("ESP8285", chipDescription), "ESP8285");
        row("no chip", app, "none", otherChip.arg("", chipDescription), QJsonValue::Undefined);
        row("full description is no chip name", app, "none",
            otherChip.arg(chipDescription, chipDescription), chipDescription);
        row("no sections", "", "none",
            "This scatter file is invalid (no section definitions present)");
        row("absent file", "application 0 none.bin", "-",
            "File none.bin (application) does not exist");
        row("directory", "firmware 0 subdir", "-", "File subdir (firmware) does not exist");
        row("unknown type still needs its file", "boot 0 gone.bin", "-",
            "File gone.bin (boot) does not exist");
        // Root reads a file without permissions, but not this one.
        QString locked = writeTestFile(m_dir.path(), "locked.bin", "x");
        QVERIFY(QFile::setPermissions(locked, QFileDevice::WriteOwner));
        if (QFile(locked).open(QIODevice::ReadOnly))
            locked = "/proc/sys/vm/drop_caches";
        row("unreadable file", "application 0 " + locked, "-",
            QString("File %1 cannot be read").arg(locked));
        row("rows filled so far stay",
            "application 0 a.bin | application nowhere b.bin | application 0 c.bin", a + " | - | -",
            "Section application address nowhere is invalid");
        row("firmware options missing", "firmware 0 fw.bin options=", "-",
            "Mandatory firmware options are missing");
        row("md5 differs", "application 0 app.bin md5=0123", "-",
            "The data within the package is corrupted (saved md5 0123 does not match the "
            "computed one " +
                applicationMd5 + " for file " + path("app.bin") + ")");
        row("no md5, nobody to ask", "application 0 app.bin md5=", "-",
            "No saved checksum for " + path("app.bin"));

        // What would damage flash or claim options that were never written is refused.
        const QString invalidOptions =
            "Firmware fw.bin has invalid flash options (mode %1, size %2, frequency %3)";
        row("unknown flash mode", "firmware 0 fw.bin mode=xyz", "-",
            invalidOptions.arg("xyz", "4MB", "40m"));
        row("unknown frequency", "firmware 0 fw.bin frequency=99m", "-",
            invalidOptions.arg("dio", "4MB", "99m"));
        row("size without a byte count", "firmware 0 fw.bin flashsize=32m-c2", "-",
            invalidOptions.arg("dio", "32m-c2", "40m"));
        row("adjacent sections", "application 0 a.bin size=0x1000 | application 0x1000 b.bin",
            "a.bin 0x00000000-0x00001000 | " + b);
        row("overlapping sections", "firmware 0x0 fw.bin | application 0x1000 app.bin",
            "fw.bin 0x00000000-0x00001234 | -",
            "Sections fw.bin [0x00000000:0x00001234] and app.bin [0x00001000:0x000013e8] overlap");
        row("a shorter size still covers the file",
            "application 0 a.bin size=0x10 | application 0x100 b.bin",
            "a.bin 0x00000000-0x00000010 | -",
            "Sections a.bin [0x00000000:0x000003e8] and b.bin [0x00000100:0x000004e8] overlap");
        row("firmware past its flash size", "firmware 0xFF000 fw.bin flashsize=1MB", "-",
            "Section fw.bin [0x000ff000:0x00100234] runs past the end of its flash memory size 1MB");
        row("application past the firmware's size",
            "firmware 0 fw.bin flashsize=1MB | application 0xFFF00 app.bin",
            "fw.bin 0x00000000-0x00001234 | -",
            "Section app.bin [0x000fff00:0x001002e8] runs past the end of its flash memory size 1MB");
        // Nothing is hashed before every section is known to fit: the wrong md5 goes unnoticed.
        row("fit checked before any hashing",
            "firmware 0 fw.bin flashsize=512K md5=0123 | application 0x7FF00 app.bin",
            "fw.bin 0x00000000-0x00001234 | -",
            "Section app.bin [0x0007ff00:0x000802e8] runs past the end of its flash memory size 512K");
    }

    void load()
    {
        QFETCH(QJsonObject, scatter);
        QFETCH(QString, expectedError);
        QFETCH(QString, rows);
        const bool loads = expectedError.isEmpty();
        FakePrompts prompts; // refused loads have nobody to ask
        ScatterValidator validator(chipDescription, path("other.elf"), loads ? &prompts : nullptr);
        QString error;
        QVERIFY(parse(validator, document("firmware 0 fw.bin"), &error));
        QCOMPARE(validator.loaderText(), path("stub.elf")); // the document's, not the field's
        QCOMPARE(parse(validator, scatter, &error), loads);
        QCOMPARE(error, expectedError);
        QCOMPARE(validator.tableRebuilt(), rows != "none");
        QStringList table; // "file start-end" per row, "-" for a row without cells
        for (const ScatterSection &row : validator.rows()) {
            table << (row.hasCells
                          ? row.file + ' ' + row.startAddressText() + '-' + row.endAddressText()
                          : "-");
        }
        QCOMPARE(table.join(" | "), rows == "none" ? QString() : rows);
        QStringList notices;
        for (const QJsonValue &section : scatter["sections"].toArray()) {
            const QString type = section["type"].toString();
            if (type != "application" && type != "firmware")
                notices << "notice:Skip unknown scatter section " + type;
        }
        QCOMPARE(prompts.calls, loads ? notices : QStringList());
    }

    // Checks against the flash size detected on the chip (0: unknown); a firmware set for more
    // flash than that is flashed only when the user says so, a section past the end never.
    void againstTheChip_data()
    {
        QTest::addColumn<QString>("sections");
        QTest::addColumn<uint>("detected");
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QString>("result"); // the error, or "loads"
        const auto row = [](const char *name, const char *sections, uint detected,
                            const char *answer, const QString &result = "loads") {
            QTest::newRow(name) << sections << detected << answer << result;
        };
        const char *const twoSections = "firmware 0 fw.bin | application 0xFFF00 app.bin";
        row("size unknown", "firmware 0 fw.bin", 0, "");
        row("as big as the chip", "firmware 0 fw.bin", 0x400000, "");
        row("bigger, confirmed", "firmware 0 fw.bin", 0x100000, "Yes");
        row("bigger, declined", "firmware 0 fw.bin", 0x100000, "No",
            "Firmware fw.bin is set for a flash memory size of 4MB, larger than the chip's 1Mb");
        row("past the chip's end is not asked about", twoSections, 0x100000, "",
            "Section app.bin [0x000fff00:0x001002e8] runs past the end of the chip's flash "
            "memory (1Mb)");
        row("application sized by the chip alone", "application 0xFFF00 app.bin", 0x100000, "",
            "Section app.bin [0x000fff00:0x001002e8] runs past the end of its flash memory "
            "size 1Mb");
        row("a template is not checked", twoSections, 0x100000, "", "");
    }

    void againstTheChip()
    {
        QFETCH(QString, sections);
        QFETCH(uint, detected);
        QFETCH(QString, answer);
        QFETCH(QString, result);
        FakePrompts prompts;
        prompts.script << answer;
        ScatterValidator validator(chipDescription, path("stub.elf"), &prompts);
        validator.setDetectedFlashSize(detected);
        QString error;
        const bool strict = !result.isEmpty();
        QCOMPARE(parse(validator, document(sections), &error, strict),
                 !strict || result == "loads");
        QCOMPARE(error, result == "loads" ? QString() : result);
        const QString question = "flash size: Firmware fw.bin is set for a flash memory size of "
                                 "4MB, but the chip has 1Mb. Flash it anyway? -> ";
        QCOMPARE(prompts.calls, answer.isEmpty() ? QStringList() : QStringList{question + answer});
    }

    // The document's loader is a directory. Without a usable loader a strict load asks, a
    // non-strict one goes straight to the chooser. The result: the loader field after a load, or
    // the error of a failed one.
    void loader_data()
    {
        QTest::addColumn<QString>("field");
        QTest::addColumn<QStringList>("dialogue"); // the calls expected, with the answers given
        QTest::addColumn<QString>("result");
        const QString other = path("other.elf"), stale = "/nonexistent/loader.elf";
        const QString noLoader = "The mandatory flash loader file is missing";
        const QString asked = QString("loader %1: This scatter file does not specify a flash "
                                      "loader, but should. Or the flash loader file (%1) is "
                                      "missing -> ")
                                  .arg(path("subdir"));
        const QString yes = asked + "Yes", chosen = "choose -> " + other, cancelled = "choose -> ";
        QTest::newRow("field kept") << other << QStringList() << other;
        QTest::newRow("No") << "" << QStringList{asked + "No"} << noLoader;
        QTest::newRow("Yes, chosen") << "" << QStringList{yes, chosen} << other;
        QTest::newRow("Yes, cancelled") << "" << QStringList{yes, cancelled} << noLoader;
        QTest::newRow("Yes, cancelled, stale field accepted")
            << stale << QStringList{yes, cancelled} << stale;
        QTest::newRow("non-strict asks no question") << "" << QStringList{chosen} << other;
        QTest::newRow("non-strict, cancelled") << "" << QStringList{cancelled} << noLoader;
    }

    void loader()
    {
        QFETCH(QString, field);
        QFETCH(QStringList, dialogue);
        QFETCH(QString, result);
        const bool strict = !dialogue.value(0).startsWith("choose"); // only non-strict starts so
        FakePrompts prompts;
        for (const QString &line : dialogue)
            prompts.script << line.section(" -> ", -1);
        ScatterValidator validator(chipDescription, field, &prompts);
        QString error;
        const bool loads = result.startsWith('/'); // loader files are absolute, errors are not
        QCOMPARE(parse(validator, document("application 0 app.bin", "ESP8266EX", "subdir"), &error,
                       strict),
                 loads);
        QCOMPARE(prompts.calls, dialogue);
        QCOMPARE(loads ? validator.loaderText() : error, result);
    }
};

QTEST_GUILESS_MAIN(TestScatterValidator)
#include "tst_scattervalidator.moc"
