#include "widgets/texthelpers.h"

#include <QtTest>

class TestTextHelpers : public QObject
{
    Q_OBJECT

private slots:
    void parse_data();
    void parse();
    void hex_data();
    void hex();
};

void TestTextHelpers::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<uint>("value");
    QTest::addColumn<bool>("ok");

    QTest::newRow("empty") << "" << 0u << false;
    QTest::newRow("zero is octal") << "0" << 0u << true;
    QTest::newRow("decimal") << "4096" << 4096u << true;
    QTest::newRow("octal") << "01234" << 668u << true;
    QTest::newRow("octal 1024") << "02000" << 1024u << true;
    QTest::newRow("bad octal") << "08" << 0u << false;
    QTest::newRow("hex lower prefix") << "0x400" << 1024u << true;
    QTest::newRow("hex upper prefix mixed digits") << "0X123ef" << 0x123EFu << true;
    QTest::newRow("hex prefix only") << "0x" << 0u << false;
    QTest::newRow("binary") << "0b10000000000" << 1024u << true;
    QTest::newRow("binary upper prefix") << "0B101" << 5u << true;
    QTest::newRow("binary prefix only") << "0b" << 0u << false;
    QTest::newRow("binary bad digit") << "0b102" << 0u << false;
    QTest::newRow("kb upper") << "1KB" << 1024u << true;
    QTest::newRow("kb mixed") << "12Kb" << 12288u << true;
    QTest::newRow("mb mixed") << "1Mb" << 1048576u << true;
    QTest::newRow("suffix takes decimal only") << "0x10kb" << 0u << false;
    QTest::newRow("suffix ignores leading zero") << "010kb" << 10240u << true;
    QTest::newRow("mb wraps") << "4096mb" << 0u << true;
    QTest::newRow("kb wraps") << "4194304kb" << 0u << true;
    QTest::newRow("beyond 32 bits") << "4294967296" << 0u << false;
    QTest::newRow("largest") << "4294967295" << 4294967295u << true;
    QTest::newRow("single k is no suffix") << "12k" << 0u << false;
    QTest::newRow("single m is no suffix") << "12m" << 0u << false;
    QTest::newRow("kib is no suffix") << "12kib" << 0u << false;
    QTest::newRow("blank before hex prefix") << " 0x10" << 0u << false;
    QTest::newRow("negative") << "-1" << 0u << false;
}

void TestTextHelpers::parse()
{
    QFETCH(QString, text);
    QFETCH(uint, value);
    QFETCH(bool, ok);
    bool parsed = !ok;
    QCOMPARE(parseUnsignedInteger(text, &parsed), value);
    QCOMPARE(parsed, ok);
    // The ok pointer is optional.
    QCOMPARE(parseUnsignedInteger(text), value);
}

void TestTextHelpers::hex_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<bool>("upper");
    QTest::addColumn<QString>("text");

    QByteArray sixteen;
    for (char c = 0; c < 16; ++c)
        sixteen.append(c);
    QTest::newRow("empty") << QByteArray() << true << QString();
    QTest::newRow("upper") << sixteen << true << "000102030405060708090A0B0C0D0E0F";
    QTest::newRow("lower") << sixteen << false << "000102030405060708090a0b0c0d0e0f";
    QTest::newRow("high bytes") << QByteArray("\xff\xc0\xdb", 3) << true << "FFC0DB";
}

void TestTextHelpers::hex()
{
    QFETCH(QByteArray, data);
    QFETCH(bool, upper);
    QFETCH(QString, text);
    QCOMPARE(hexlify(data, upper), text);
}

QTEST_GUILESS_MAIN(TestTextHelpers)
#include "tst_texthelpers.moc"
