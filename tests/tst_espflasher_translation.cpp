#include "resources/esputilitytranslation.h"
#include "widgets/flashtypeselector.h"
#include "wizard/espscatterwizard.h"

#include "flashertestkit.h"
#include "testpaths.h"

using namespace FlasherTestKit;

class TestEspFlasherTranslation : public FlasherTest
{
    Q_OBJECT

private slots:
    void cleanup()
    {
        FlasherTest::cleanup();
        installEspUtilityTranslation(QLocale(QLocale::English));
    }
    void russianShows();
    void everyTextIsTranslated();
};

// The dialogs, and messages filled in after translation, under each class's own context.
void TestEspFlasherTranslation::russianShows()
{
    QVERIFY(installEspUtilityTranslation(QLocale(QLocale::Russian)));
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    QCOMPARE(flasher->windowTitle(), QStringLiteral("Утилита Brimcote ESP"));
    QCOMPARE(find<QPushButton>("comPortConnect")->text(), QString("Подключить"));
    QCOMPARE(find<QTableWidget>("scatterTable")->horizontalHeaderItem(0)->text(),
             QStringLiteral("Активно"));
    // The dialog's text with the worker's name of the command.
    QVERIFY(deliverFinished(false, 3));
    QCOMPARE(log(),
             QStringList{line(red, "Операция UBoot получение сведений (3) завершилась с ошибкой")});

    QCOMPARE(FlashTypeSelector(nullptr).windowTitle(), QStringLiteral("Компоненты"));
    EspScatterWizard wizard(nullptr);
    QCOMPARE(wizard.windowTitle(), QStringLiteral("Составление файла разметки"));
    auto *finish = wizard.findChild<QPushButton *>("finishButton");
    QCOMPARE(finish->text(), QStringLiteral("Начать"));
    finish->click();
    wizard.findChild<QLineEdit *>("regionStartAddress")->setText("zz");
    finish->click();
    QCOMPARE(wizard.findChild<QLabel *>("regionValuesWarning")->text(),
             QStringLiteral("<font color=\"red\">Начальный адрес zz некорректен</font>"));

    // Installing again replaces the translator; a language without one leaves English.
    QVERIFY(installEspUtilityTranslation(QLocale(QLocale::Russian, QLocale::Russia)));
    QVERIFY(!installEspUtilityTranslation(QLocale(QLocale::German)));
    QCOMPARE(ESPFlasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr).windowTitle(),
             QStringLiteral("Brimcote ESP Utility"));
}

// Every current text translated, with its placeholders, markup, entities, line breaks and outer
// blanks intact, in each class's context.
void TestEspFlasherTranslation::everyTextIsTranslated()
{
    QFile file(testSourceDir() + QStringLiteral("/resources/translations/esputility_ru.ts"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const auto keptParts = [](const QString &text) {
        static const QRegularExpression kept(QStringLiteral("%\\d|<[^>]*>|&\\w+;|^\\s+|\\s+$|\\n"));
        QStringList parts;
        for (auto it = kept.globalMatch(text); it.hasNext();)
            parts << it.next().captured();
        parts.sort();
        return parts;
    };
    QXmlStreamReader xml(&file);
    QString context;
    QString source;
    QSet<QString> contexts;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == QLatin1String("name"))
            context = xml.readElementText();
        if (xml.name() == QLatin1String("source"))
            source = xml.readElementText();
        if (xml.name() != QLatin1String("translation"))
            continue;
        const QString type = xml.attributes().value(QLatin1String("type")).toString();
        const QString translation = xml.readElementText();
        if (type == QLatin1String("obsolete") || type == QLatin1String("vanished"))
            continue;
        const QByteArray where = (context + ": " + source).toUtf8();
        QVERIFY2(type.isEmpty() && !translation.trimmed().isEmpty(), where);
        QVERIFY2(translation != source || source == QLatin1String("MAC:"), where);
        QCOMPARE(keptParts(translation), keptParts(source));
        contexts.insert(context);
    }
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
    QCOMPARE(contexts, (QSet<QString>{"ESPFlasher", "ESPToolWorker", "EspScatterWizard",
                                      "FlashTypeSelector"}));
}

QTEST_MAIN(TestEspFlasherTranslation)
#include "tst_espflasher_translation.moc"
