// Built with nothing but what pkg-config says for esputility-core.
#include <esputility/texthelpers.h>

#include <QByteArray>

int main()
{
    bool ok = false;
    const unsigned int value = parseUnsignedInteger(QStringLiteral("0x1000"), &ok);
    const QString hex = hexlify(QByteArray::fromRawData("\x12\xab", 2), true);
    return ok && value == 0x1000 && hex == QLatin1String("12AB") ? 0 : 1;
}
