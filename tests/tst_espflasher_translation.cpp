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
    void russianShows();
    void everyTextIsTranslated();
};

void TestEspFlasherTranslation::russianShows()
{
    QVERIFY(installEspUtilityTranslation(QLocale(QLocale::Russian)));
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    QCOMPARE(flasher->windowTitle() + "|" + find<QPushButton>("comPortConnect")->text() + "|" +
                 find<QTableWidget>("scatterTable")->horizontalHeaderItem(0)->text(),
             QStringLiteral("Утилита Brimcote ESP|Подключить|Активно"));
    // The dialog's text with the worker's name of the command.
    QVERIFY(deliverFinished(false, 3));
    QCOMPARE(log(),
             QStringList{line(red, "Операция UBoot получение сведений (3) завершилась с ошибкой")});

    QCOMPARE(FlashTypeSelector(nullptr).windowTitle(), QStringLiteral("Компоненты"));
    // The composer's button text is set in code, under its class's context.
    EspScatterWizard wizard(nullptr);
    QCOMPARE(wizard.windowTitle() + "|" + wizard.findChild<QPushButton *>("finishButton")->text(),
             QStringLiteral("Составление файла разметки|Начать"));

    // A language without a translation removes the one installed: English again.
    QVERIFY(!installEspUtilityTranslation(QLocale(QLocale::German)));
    QCOMPARE(ESPFlasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr).windowTitle(),
             QStringLiteral("Brimcote ESP Utility"));
}

// Every current text translated, keeping its placeholders, markup, entities, breaks and blanks.
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
    QString context, source;
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
