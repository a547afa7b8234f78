#include "flasher/espflasher.h"
#include "resources/esputilitytranslation.h"
#include "widgets/flashtypeselector.h"
#include "wizard/espscatterwizard.h"

#include "flashertestkit.h"
#include "testpaths.h"

#include <QFile>
#include <QGroupBox>
#include <QPushButton>
#include <QRegularExpression>
#include <QTableWidget>
#include <QTranslator>
#include <QXmlStreamReader>
#include <QtTest>

using namespace FlasherTestKit;

namespace {

struct Message
{
    QString context;
    QString source;
    QString translation;
    QString type; // the translation's type attribute: unfinished, obsolete, vanished...
};

QVector<Message> readTs(const QString &path, QString *error)
{
    QVector<Message> messages;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return messages;
    }
    QXmlStreamReader xml(&file);
    QString context;
    Message message;
    while (!xml.atEnd()) {
        xml.readNext();
        if (!xml.isStartElement())
            continue;
        if (xml.name() == QLatin1String("name")) {
            context = xml.readElementText();
        } else if (xml.name() == QLatin1String("message")) {
            message = Message();
            message.context = context;
        } else if (xml.name() == QLatin1String("source")) {
            message.source = xml.readElementText();
        } else if (xml.name() == QLatin1String("translation")) {
            message.type = xml.attributes().value(QLatin1String("type")).toString();
            message.translation = xml.readElementText();
            messages.append(message);
        }
    }
    if (xml.hasError())
        *error = xml.errorString();
    return messages;
}

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

QStringList matches(const QString &text, const QRegularExpression &pattern)
{
    QStringList found;
    auto it = pattern.globalMatch(text);
    while (it.hasNext())
        found << it.next().captured();
    return sorted(found);
}

QString tsPath()
{
    return testSourceDir() + QStringLiteral("/resources/translations/esputility_ru.ts");
}

const QLocale russian(QLocale::Russian, QLocale::Russia);
const QLocale english(QLocale::English, QLocale::UnitedStates);

} // namespace

class TestEspFlasherTranslation : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void translationIsEmbedded();
    void dialogShowsRussian();
    void otherWidgetsShowRussian();
    void languageWithoutCountry();
    void englishRemovesTheTranslation();
    void installingAgainReplaces();
    void everyTextIsTranslated();
    void buildCompiledTheCurrentSource();
};

void TestEspFlasherTranslation::cleanup()
{
    installEspUtilityTranslation(english);
}

void TestEspFlasherTranslation::translationIsEmbedded()
{
    QFile compiled(QStringLiteral(":/esptool/translations/esputility_ru.qm"));
    QVERIFY(compiled.open(QIODevice::ReadOnly));
    QVERIFY(compiled.size() > 0);
}

void TestEspFlasherTranslation::dialogShowsRussian()
{
    QVERIFY(installEspUtilityTranslation(russian));
    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    QCOMPARE(flasher.windowTitle(), QStringLiteral("Утилита Brimcote ESP"));
    QCOMPARE(child<QPushButton>(&flasher, "comPortConnect")->text(), QStringLiteral("Подключить"));
    QCOMPARE(child<QPushButton>(&flasher, "flashTool")->text(), QStringLiteral("Прошить"));
    QCOMPARE(child<QGroupBox>(&flasher, "groupBox")->title(), QStringLiteral("Журнал"));
    QCOMPARE(child<QTableWidget>(&flasher, "scatterTable")->horizontalHeaderItem(0)->text(),
             QStringLiteral("Активно"));

    // A message built from both the dialog's and the worker's texts.
    QVERIFY(deliverFinished(&flasher, false, 3));
    QCOMPARE(logStrings(&flasher),
             QStringList{line(red, "Операция UBoot получение сведений (3) завершилась с ошибкой")});
}

void TestEspFlasherTranslation::otherWidgetsShowRussian()
{
    QVERIFY(installEspUtilityTranslation(russian));
    FlashTypeSelector selector;
    QCOMPARE(selector.windowTitle(), QStringLiteral("Компоненты"));
    EspScatterWizard wizard(nullptr);
    QCOMPARE(wizard.windowTitle(), QStringLiteral("Составление файла разметки"));
    QCOMPARE(wizard.findChild<QPushButton *>("finishButton")->text(), QStringLiteral("Начать"));
}

void TestEspFlasherTranslation::languageWithoutCountry()
{
    QVERIFY(installEspUtilityTranslation(QLocale(QLocale::Russian)));
    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    QCOMPARE(child<QPushButton>(&flasher, "comPortConnect")->text(), QStringLiteral("Подключить"));
}

void TestEspFlasherTranslation::englishRemovesTheTranslation()
{
    QVERIFY(installEspUtilityTranslation(russian));
    // No translation for English: the library's own texts show again.
    QVERIFY(!installEspUtilityTranslation(english));
    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    QCOMPARE(flasher.windowTitle(), QStringLiteral("Brimcote ESP Utility"));
    QVERIFY(!installEspUtilityTranslation(QLocale(QLocale::German, QLocale::Germany)));
}

void TestEspFlasherTranslation::installingAgainReplaces()
{
    QVERIFY(installEspUtilityTranslation(russian));
    QVERIFY(installEspUtilityTranslation(russian));
    // Had the first translator stayed installed, this would still read Russian.
    QVERIFY(!installEspUtilityTranslation(english));
    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    QCOMPARE(child<QPushButton>(&flasher, "comPortConnect")->text(), QStringLiteral("Connect"));
}

// Every text translated, with its placeholders, markup, entities and outer blanks intact.
void TestEspFlasherTranslation::everyTextIsTranslated()
{
    QString error;
    const QVector<Message> messages = readTs(tsPath(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QVERIFY(messages.size() > 100);

    const QRegularExpression placeholder(QStringLiteral("%\\d"));
    const QRegularExpression tag(QStringLiteral("<[^>]*>"));
    const QRegularExpression entity(QStringLiteral("&\\w+;"));
    const QRegularExpression outerBlanks(QStringLiteral("^\\s*|\\s*$"));
    QSet<QString> contexts;
    for (const Message &message : messages) {
        if (message.type == QLatin1String("obsolete") || message.type == QLatin1String("vanished"))
            continue;
        const QString where = message.context + QStringLiteral(": ") + message.source;
        contexts.insert(message.context);
        QVERIFY2(message.type.isEmpty(), qPrintable(where));
        QVERIFY2(!message.translation.trimmed().isEmpty(), qPrintable(where));
        QVERIFY2(message.translation != message.source || message.source == QLatin1String("MAC:"),
                 qPrintable(where));
        QCOMPARE(matches(message.translation, placeholder), matches(message.source, placeholder));
        QCOMPARE(matches(message.translation, tag), matches(message.source, tag));
        QCOMPARE(matches(message.translation, entity), matches(message.source, entity));
        QCOMPARE(matches(message.translation, outerBlanks), matches(message.source, outerBlanks));
        QCOMPARE(message.translation.count(QLatin1Char('\n')),
                 message.source.count(QLatin1Char('\n')));
    }
    QCOMPARE(sorted(contexts.values()),
             (QStringList{"ESPFlasher", "ESPToolWorker", "EspScatterWizard", "FlashTypeSelector"}));
}

void TestEspFlasherTranslation::buildCompiledTheCurrentSource()
{
    QString error;
    const QVector<Message> messages = readTs(tsPath(), &error);
    QVERIFY2(error.isEmpty(), qPrintable(error));
    QTranslator compiled;
    QVERIFY(compiled.load(QStringLiteral(":/esptool/translations/esputility_ru.qm")));
    for (const Message &message : messages) {
        if (!message.type.isEmpty())
            continue;
        QCOMPARE(compiled.translate(message.context.toUtf8().constData(),
                                    message.source.toUtf8().constData()),
                 message.translation);
    }
}

QTEST_MAIN(TestEspFlasherTranslation)
#include "tst_espflasher_translation.moc"
