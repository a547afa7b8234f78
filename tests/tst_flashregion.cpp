#include "flasher/flashregion.h"

#include <QtTest>

Q_DECLARE_METATYPE(FlashRegion::Parse)

class TestFlashRegion : public QObject
{
    Q_OBJECT

private slots:
    void parseAddressSize_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<FlashRegion::Parse>("parse");
        QTest::addColumn<uint>("address");
        QTest::addColumn<uint>("size");
        using P = FlashRegion::Parse;
        QTest::newRow("hex and decimal") << "0x1000:4096" << P::Ok << 0x1000u << 4096u;
        QTest::newRow("blanks trimmed") << "  0x1000 : 0x100 " << P::Ok << 0x1000u << 0x100u;
        QTest::newRow("kb suffix") << "0x10000:64kb" << P::Ok << 0x10000u << 0x10000u;
        QTest::newRow("octal and binary") << "010:0b11" << P::Ok << 8u << 3u;
        QTest::newRow("extra parts ignored") << "0x20:0x10:junk" << P::Ok << 0x20u << 0x10u;
        QTest::newRow("zero size kept") << "0x1000:0" << P::Ok << 0x1000u << 0u;
        QTest::newRow("bad size") << "0x1000:zz" << P::BadNumber << 0u << 0u;
        QTest::newRow("bad address") << "x:1" << P::BadNumber << 0u << 0u;
        QTest::newRow("empty size") << "0x1000:" << P::BadNumber << 0u << 0u;
        QTest::newRow("no colon") << "0x1000" << P::NoColon << 0u << 0u;
        QTest::newRow("empty") << "" << P::NoColon << 0u << 0u;
    }

    void parseAddressSize()
    {
        QFETCH(QString, text);
        QFETCH(FlashRegion::Parse, parse);
        QFETCH(uint, address);
        QFETCH(uint, size);
        FlashRegion region(7, 9);
        QCOMPARE(FlashRegion::parseAddressSize(text, &region), parse);
        if (parse == FlashRegion::Parse::Ok) {
            QCOMPARE(region.address, address);
            QCOMPARE(region.size, size);
            QVERIFY(!region.wholeChip);
        } else {
            // A failed parse leaves the caller's region alone.
            QCOMPARE(region.address, 7u);
            QCOMPARE(region.size, 9u);
        }
    }

    void parseErase_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<FlashRegion::Parse>("parse");
        QTest::addColumn<QVariantList>("params");
        using P = FlashRegion::Parse;
        QTest::newRow("prefilled") << "0x911" << P::Ok << QVariantList{0x911u};
        QTest::newRow("blanks") << " 0x911 " << P::Ok << QVariantList{0x911u};
        QTest::newRow("decimal spelling") << "2321" << P::Ok << QVariantList{0x911u};
        QTest::newRow("region") << "0x1000:4096" << P::Ok << QVariantList{0x1000u, 4096u};
        QTest::newRow("other single value") << "0x910" << P::NoColon << QVariantList();
        QTest::newRow("word") << "all" << P::NoColon << QVariantList();
        QTest::newRow("bad region") << "0x1000:zz" << P::BadNumber << QVariantList();
    }

    void parseErase()
    {
        QFETCH(QString, text);
        QFETCH(FlashRegion::Parse, parse);
        QFETCH(QVariantList, params);
        FlashRegion region;
        QCOMPARE(FlashRegion::parseErase(text, &region), parse);
        if (parse == FlashRegion::Parse::Ok)
            QCOMPARE(region.eraseParameters(), params);
    }

    void parseRange_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<FlashRegion::Parse>("parse");
        QTest::addColumn<uint>("address");
        QTest::addColumn<uint>("size");
        using P = FlashRegion::Parse;
        QTest::newRow("address:size") << "0x0:0x1000" << P::Ok << 0u << 0x1000u;
        QTest::newRow("address-end") << "0x10000-0x1c000" << P::Ok << 0x10000u << 0xc000u;
        QTest::newRow("end with suffix") << "0-64kb" << P::Ok << 0u << 0x10000u;
        QTest::newRow("up to 4 GiB") << "0xFFFFF000:0x1000" << P::Ok << 0xFFFFF000u << 0x1000u;
        QTest::newRow("end equals start") << "0x1000-0x1000" << P::Empty << 0u << 0u;
        QTest::newRow("end below start") << "0x2000-0x1000" << P::Empty << 0u << 0u;
        QTest::newRow("zero size") << "0x1000:0" << P::Empty << 0u << 0u;
        QTest::newRow("past 4 GiB") << "0xFFFFF000:0x2000" << P::Empty << 0u << 0u;
        QTest::newRow("bad end") << "0x1000-zz" << P::BadNumber << 0u << 0u;
        QTest::newRow("missing end") << "0x1000-" << P::BadNumber << 0u << 0u;
        QTest::newRow("two dashes") << "1-2-3" << P::NoColon << 0u << 0u;
        QTest::newRow("single number") << "4096" << P::NoColon << 0u << 0u;
    }

    void parseRange()
    {
        QFETCH(QString, text);
        QFETCH(FlashRegion::Parse, parse);
        QFETCH(uint, address);
        QFETCH(uint, size);
        FlashRegion region;
        QCOMPARE(FlashRegion::parseRange(text, &region), parse);
        if (parse == FlashRegion::Parse::Ok) {
            QCOMPARE(region.address, address);
            QCOMPARE(region.size, size);
        }
    }

    void md5ParametersCarryTheExpectation()
    {
        const FlashRegion region(0x1000, 0x200);
        QCOMPARE(region.md5Parameters(), (QVariantList{0x1000u, 0x200u}));
        QCOMPARE(region.md5Parameters("ABCD"), (QVariantList{0x1000u, 0x200u, QString("ABCD")}));
        QCOMPARE(region.end(), 0x1200u);
    }

    void md5RequestNamesTheSizeNotTheEnd()
    {
        QCOMPARE(FlashRegion(0x1000, 4096).md5RequestMessage(),
                 QString("Requested flash memory contents md5 for [0x00001000:0x00001000] "
                         "(size 4096)"));
    }
};

QTEST_GUILESS_MAIN(TestFlashRegion)
#include "tst_flashregion.moc"
