#include "wizard/espscatterwizard.h"

#include "flashertestkit.h"

class TestEspScatterWizard : public QObject
{
    Q_OBJECT

private slots:
    void init() { wizard = std::make_unique<EspScatterWizard>(nullptr); }
    void validation_data();
    void validation();
    void beginBackAndReset();

private:
    template <class T>
    T *find(const char *name)
    {
        return FlasherTestKit::child<T>(wizard.get(), name);
    }
    void fill(int type, const QString &start, bool sizeMode, const QString &value,
              const QString &file, const char *button = "nextButton")
    {
        FlasherTestKit::fillRegion(wizard.get(), type, start, sizeMode, value, file, button);
    }
    void click(const char *button) { find<QPushButton>(button)->click(); }
    QString fields() // "type|start|end|size|file" of the region in the editor
    {
        QStringList texts{QString::number(find<QComboBox>("regionTypeCombo")->currentIndex())};
        for (const char *name :
             {"regionStartAddress", "regionEndAddress", "regionSize", "regionFileName"})
            texts << find<QLineEdit>(name)->text();
        return texts.join('|');
    }
    QString state() // the page shown, and the buttons that can be pressed
    {
        QStringList names{"page " +
                          QString::number(find<QStackedWidget>("stackedWidget")->currentIndex())};
        for (const char *name : {"resetButton", "backButton", "nextButton", "finishButton"}) {
            if (find<QPushButton>(name)->isEnabled())
                names << find<QPushButton>(name)->text();
        }
        return names.join(',');
    }
    QString warning() { return find<QLabel>("regionValuesWarning")->text(); }
    static QString red(const QString &text) { return "<font color=\"red\">" + text + "</font>"; }
    static QJsonObject sections(const QJsonArray &regions) { return {{"sections", regions}}; }
    static QJsonObject region(const QString &type, const QString &address, const QString &size,
                              const QString &file)
    {
        return {{"type", type}, {"address", address}, {"size", size}, {"file", file}};
    }

    std::unique_ptr<EspScatterWizard> wizard;
};

void TestEspScatterWizard::validation_data()
{
    QTest::addColumn<QString>("start");
    QTest::addColumn<bool>("sizeMode");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("size");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("error"); // empty: accepted
    QTest::addColumn<QString>("after"); // end|size|file as the check leaves them

    const auto row = [](const char *name, const char *start, bool sizeMode, const char *end,
                        const char *size, const char *file, const char *error, const char *after) {
        QTest::newRow(name) << start << sizeMode << end << size << file << error << after;
    };
    // In the order of the checks: start, file name, end (or size), size positive.
    row("start not a number", "0xZZ", false, "0x2000", "junk", "", "Start address 0xZZ is invalid",
        "0x2000|junk|");
    row("empty file", "0x1000", false, "zz", "junk", "", "File name cannot be empty", "zz|junk|");
    // Kept as it has always been: the end and size messages quote the start text.
    row("bad end", "0x1000", false, "0x2000zz", "junk", "boot", "End address 0x1000 is invalid",
        "0x2000zz|junk|boot");
    row("end below start", "0x2000", false, "0x1000", "junk", "boot",
        "End address is smaller than Start address", "0x1000|junk|boot");
    row("end equal to start", "0x1000", false, "4096", "junk", "boot",
        "Size parameter must be positive", "4096|0|boot");
    row("bad size", "0x1000", true, "junk", "4k", "boot", "Size 0x1000 is invalid", "junk|4k|boot");
    row("zero size", "0x1000", true, "junk", "0", "boot", "Size parameter must be positive",
        "junk|0|boot");
    // Accepted: the end rewritten in decimal, ".img" appended unless there in any case.
    row("suffix only at the end", "0", true, "", "1mb", "a.img.bak", "",
        "1048576|1mb|a.img.bak.img");
    row("name without dot", "0", true, "", "1", "img", "", "1|1|img.img");
}

void TestEspScatterWizard::validation()
{
    QFETCH(QString, start);
    QFETCH(bool, sizeMode);
    QFETCH(QString, end);
    QFETCH(QString, size);
    QFETCH(QString, file);
    QFETCH(QString, error);
    QFETCH(QString, after);

    QSignalSpy accepted(wizard.get(), &QDialog::accepted);
    click("finishButton");
    find<QLineEdit>("regionEndAddress")->setText(end);
    find<QLineEdit>("regionSize")->setText(size);
    fill(1, start, sizeMode, sizeMode ? size : end, file, "finishButton");

    QCOMPARE(fields(), "1|" + start + "|" + after);
    QCOMPARE(warning(), error.isEmpty() ? QString() : red(error));
    QCOMPARE(accepted.count(), error.isEmpty() ? 1 : 0);
    const QStringList parts = after.split('|');
    QCOMPARE(wizard->scatter(),
             error.isEmpty() ? sections({region("application", start, parts.at(1), parts.at(2))})
                             : QJsonObject());
}

// Begin opens a fresh firmware region at 0; Next starts where the last region ended; Back
// returns to the last confirmed region, or to the introduction; Reset goes there at once.
void TestEspScatterWizard::beginBackAndReset()
{
    // The tooltip's spelling is as the product has always shown it.
    QCOMPARE(
        wizard->windowTitle() + "|" + state() + "|" + find<QPushButton>("finishButton")->toolTip(),
        QStringLiteral("Scatter File Composer|page 0,Begin|Start creating section confirurations"));
    fill(1, "0x5000", true, "12", "left over", "finishButton");
    QCOMPARE(state(), QStringLiteral("page 1,Reset,Next>,Finish"));
    QCOMPARE(fields(), QStringLiteral("0|0x00000000|0x00000000|0|"));
    // The mode chosen enables its field only.
    QVERIFY(find<QLineEdit>("regionEndAddress")->isEnabled() &&
            !find<QLineEdit>("regionSize")->isEnabled());
    fill(0, "0x1000", false, "0x2000", "boot");
    QCOMPARE(fields() + "|" + state(), "0|0x00002000|0x00002000|||page 1,Reset,<Back,Next>,Finish");
    fill(1, "0x00002000", true, "64kb", "app.IMG");
    click("nextButton");
    QCOMPARE(warning(), red("File name cannot be empty"));
    click("backButton");
    QCOMPARE(warning() + fields(), QStringLiteral("1|0x00002000|0x00012000|64kb|app.IMG"));
    fill(0, "0x00012000", false, "0x13000", "data", "finishButton");
    QCOMPARE(wizard->result(), int(QDialog::Accepted));
    QCOMPARE(wizard->scatter(), sections({region("firmware", "0x1000", "4096", "boot.img"),
                                          region("firmware", "0x00012000", "4096", "data.img")}));

    click("resetButton");
    QCOMPARE(state(), QStringLiteral("page 0,Begin"));
    QVERIFY(wizard->scatter().isEmpty());
    click("finishButton");
    fill(1, "0", true, "1kb", "only");
    click("backButton");
    click("backButton");
    QCOMPARE(state(), QStringLiteral("page 0,Begin"));
    click("finishButton");
    fill(1, "0", true, "2kb", "last", "finishButton");
    QCOMPARE(wizard->scatter(), sections({region("application", "0", "2kb", "last.img")}));
}

QTEST_MAIN(TestEspScatterWizard)
#include "tst_espscatterwizard.moc"
