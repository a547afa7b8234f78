#include "widgets/texthelpers.h"

#include <QtTest>

class TestTextHelpers : public QObject
{
    Q_OBJECT

private slots:
    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<uint>("value");
        QTest::addColumn<bool>("ok");
        QTest::newRow("empty") << "" << 0u << false;
        QTest::newRow("octal") << "01234" << 668u << true;
        QTest::newRow("bad octal") << "08" << 0u << false;
        QTest::newRow("hex, upper prefix, mixed digits") << "0X123ef" << 0x123EFu << true;
        QTest::newRow("binary") << "0B101" << 5u << true;
        QTest::newRow("kb any case") << "12Kb" << 12288u << true;
        QTest::newRow("suffix takes decimal only") << "0x10kb" << 0u << false;
        QTest::newRow("suffix ignores leading zero") << "010kb" << 10240u << true;
        QTest::newRow("suffix wraps") << "4096mb" << 0u << true;
        QTest::newRow("beyond 32 bits") << "4294967296" << 0u << false;
        QTest::newRow("single k is no suffix") << "12k" << 0u << false;
        QTest::newRow("negative") << "-1" << 0u << false;
    }

    void parse()
    {
        QFETCH(QString, text);
        QFETCH(bool, ok);
        bool parsed = !ok;
        QTEST(parseUnsignedInteger(text, &parsed), "value");
        QCOMPARE(parsed, ok);
        QTEST(parseUnsignedInteger(text), "value"); // the ok pointer is optional
    }

    void hex()
    {
        const QByteArray data("\x00\x0a\xff\xc0\xdb", 5);
        QCOMPARE(hexlify(data, true), QStringLiteral("000AFFC0DB"));
        QCOMPARE(hexlify(data, false), QStringLiteral("000affc0db"));
        QCOMPARE(hexlify(QByteArray(), true), QString());
    }
};

QTEST_GUILESS_MAIN(TestTextHelpers)
#include "tst_texthelpers.moc"
