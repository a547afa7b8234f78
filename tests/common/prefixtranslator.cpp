#include "prefixtranslator.h"

PrefixTranslator::PrefixTranslator(const QString &context, const QString &prefix)
    : m_context(context), m_prefix(prefix)
{}

QString PrefixTranslator::translate(const char *context, const char *sourceText,
                                    const char *disambiguation, int n) const
{
    Q_UNUSED(disambiguation)
    Q_UNUSED(n)
    if (!context || !sourceText || m_context != QLatin1String(context))
        return QString();
    return m_prefix + QString::fromUtf8(sourceText);
}
