#include "modemlineregistry.h"

#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QMutexLocker>

namespace {

struct Registry
{
    QMutex mutex;
    QHash<QString, ModemLineRegistry::Setter> setters;
};

Registry &registry()
{
    static Registry instance;
    return instance;
}

QString key(const QString &path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    return canonical.isEmpty() ? path : canonical;
}

} // namespace

void ModemLineRegistry::add(const QString &path, Setter setter)
{
    Registry &r = registry();
    QMutexLocker lock(&r.mutex);
    r.setters.insert(key(path), std::move(setter));
}

void ModemLineRegistry::remove(const QString &path)
{
    Registry &r = registry();
    QMutexLocker lock(&r.mutex);
    r.setters.remove(key(path));
}

ModemLineRegistry::Setter ModemLineRegistry::find(const QString &path)
{
    const QString wanted = key(path);
    Registry &r = registry();
    QMutexLocker lock(&r.mutex);
    return r.setters.value(wanted);
}
