#pragma once

#include <QString>
#include <QTranslator>

// Prefixes every text looked up under one context, so a test can see that a text went through
// translation, and under which context, without a compiled translation file.
class PrefixTranslator : public QTranslator
{
public:
    PrefixTranslator(const QString &context, const QString &prefix);

    bool isEmpty() const override { return false; }
    QString translate(const char *context, const char *sourceText,
                      const char *disambiguation = nullptr, int n = -1) const override;

private:
    QString m_context;
    QString m_prefix;
};
