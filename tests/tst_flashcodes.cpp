#include "image/espimageparser.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QBuffer>
#include <QtTest>

using Code = unsigned char;
Q_DECLARE_METATYPE(Code)

// Flash mode, size and frequency codes: text to code, code to text, code to bytes.
class TestFlashCodes : public QObject
{
    Q_OBJECT

private slots:
    void fromString_data()
    {
        QTest::addColumn<char>("field");
        QTest::addColumn<QString>("text");
        QTest::addColumn<Code>("code");
        const Code none = 0xFF;
        const auto rows = [](char field, Code code, std::initializer_list<const char *> texts) {
            for (const char *text : texts)
                QTest::addRow("%c '%s'", field, text) << field << QString::fromLatin1(text) << code;
        };
        // The c1 forms are tried before the plain ones, and three patterns are case-sensitive:
        // "4MBc1" and "16MB" are refused, and the shown text "4MbC1" does not read back.
        rows('s', 0, {"512", "512KB", "4m"});
        rows('s', 1, {"256K", "2m"});
        rows('s', 2, {"1024kb"});
        rows('s', 3, {"2MB"});
        rows('s', 4, {"4096k", "4MB"});
        rows('s', 5, {"2MBC1", "16M-C1"});
        rows('s', 6, {"4mbc1"});
        rows('s', 7, {"4096kbc2", "32m-c2"});
        rows('s', 8, {"8192kb"});
        rows('s', 9, {"16mb", "128m"});
        rows('s', none,
             {"512kbb", " 512", "1m", "4MBc1", "4MbC1", "4MBc2", "2mbc2", "16MB", "3mb", ""});
        rows('m', 0, {"QIO"});
        rows('m', 1, {"qout"});
        rows('m', 2, {"Dio"});
        rows('m', 3, {"dout"});
        rows('m', none, {"dio ", "invalid"});
        rows('f', 0, {"40MHz", "80MHz", "80e6"}); // 80 MHz texts give the 40 MHz code, not 15
        rows('f', 1, {"26E6"});
        rows('f', 2, {"20m"});
        rows('f', none, {"40"});
    }

    void fromString()
    {
        QFETCH(char, field);
        QFETCH(QString, text);
        const Code code = field == 'm'   ? ESPImageParser::fm_fromString(text)
                          : field == 's' ? ESPImageParser::fs_fromString(text)
                                         : ESPImageParser::ff_fromString(text);
        QTEST(code, "code");
    }

    void sizes()
    {
        QStringList texts;
        for (const uint bytes : {0x400000u, 0x80000u, 0u, 1536u, 0x180000u, 0xFFFFFFFFu})
            texts << ESPImageParser::flashSizeString(bytes);
        QCOMPARE(texts, (QStringList{"4Mb", "512Kb", "0Kb", "1Kb", "1536Kb", "4194303Kb"}));
        QList<uint> bytes;
        for (const Code code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF})
            bytes << ESPImageParser::flash_size_bytes(code);
        // Code 7 (the "c2" layout) has no usable size.
        QCOMPARE(bytes, (QList<uint>{0x80000, 0x40000, 0x100000, 0x200000, 0x400000, 0x200000,
                                     0x400000, 0, 0x800000, 0x1000000, 0, 0}));
    }

    void shownTexts_data()
    {
        // Header codes, codes asked for (0xFF: keep the header's), and the three texts shown.
        QTest::addColumn<QList<int>>("header");
        QTest::addColumn<QList<int>>("asked");
        QTest::addColumn<QStringList>("texts");
        const QList<int> zero{0, 0, 0};
        QTest::newRow("qio 512K 40MHz")
            << QList<int>{3, 4, 1} << zero << QStringList{"qio", "512K", "40MHz"};
        QTest::newRow("qout 256K 26MHz")
            << zero << QList<int>{1, 1, 1} << QStringList{"qout", "256K", "26MHz"};
        QTest::newRow("dio 1Mb 20MHz")
            << zero << QList<int>{2, 2, 2} << QStringList{"dio", "1Mb", "20MHz"};
        QTest::newRow("dout 2Mb 80MHz")
            << zero << QList<int>{3, 3, 15} << QStringList{"dout", "2Mb", "80MHz"};
        QTest::newRow("2MbC1") << zero << QList<int>{4, 5, 3}
                               << QStringList{"invalid", "2MbC1", "inv"};
        QTest::newRow("8 accepted but inv")
            << zero << QList<int>{0, 8, 0} << QStringList{"qio", "inv", "40MHz"};
        QTest::newRow("from the header") << QList<int>{2, 6, 15} << QList<int>{0xFF, 0xFF, 0xFF}
                                         << QStringList{"dio", "4MbC1", "80MHz"};
        QTest::newRow("mixed") << QList<int>{3, 4, 1} << QList<int>{1, 0xFF, 2}
                               << QStringList{"qout", "4Mb", "20MHz"};
    }

    void shownTexts()
    {
        QFETCH(QList<int>, header);
        QFETCH(QList<int>, asked);
        EspImageBuilder builder;
        builder.setFlashMode(quint8(header[0]));
        builder.setFlashSize(quint8(header[1]));
        builder.setFlashFrequency(quint8(header[2]));
        QBuffer device;
        device.setData(builder.build());
        QVERIFY(device.open(QIODevice::ReadOnly));
        ESPImageParser parser;
        QVERIFY(parser.load(&device, Code(asked[0]), Code(asked[1]), Code(asked[2])));
        QTEST(
            (QStringList{parser.getFlashMode(), parser.getFlashSize(), parser.getFlashFrequency()}),
            "texts");
    }
};

QTEST_GUILESS_MAIN(TestFlashCodes)
#include "tst_flashcodes.moc"
