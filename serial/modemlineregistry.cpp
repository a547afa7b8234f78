#include "modemlineregistry.h"

#include "serial/qcomport.h"

#include <QHash>
#include <QMutex>
#include <QMutexLocker>

namespace {

struct Registration
{
    quint64 number = 0;
    ModemLineRegistry::Setter setter;
};

struct Registry
{
    QMutex mutex;
    QHash<QString, Registration> setters;
    quint64 lastNumber = 0;
};

Registry &registry()
{
    static Registry instance;
    return instance;
}

} // namespace

quint64 ModemLineRegistry::add(const QString &path, Setter setter)
{
    Registry &r = registry();
    QMutexLocker lock(&r.mutex);
    const quint64 number = ++r.lastNumber;
    r.setters.insert(QComPort::canonicalPortPath(path), Registration{number, std::move(setter)});
    return number;
}

void ModemLineRegistry::remove(const QString &path)
{
    Registry &r = registry();
    QMutexLocker lock(&r.mutex);
    r.setters.remove(QComPort::canonicalPortPath(path));
}

void ModemLineRegistry::remove(const QString &path, quint64 registration)
{
    const QString name = QComPort::canonicalPortPath(path);
    Registry &r = registry();
    QMutexLocker lock(&r.mutex);
    const auto found = r.setters.constFind(name);
    if (found != r.setters.constEnd() && found->number == registration)
        r.setters.erase(found);
}

ModemLineRegistry::Setter ModemLineRegistry::find(const QString &path)
{
    const QString wanted = QComPort::canonicalPortPath(path);
    Registry &r = registry();
    QMutexLocker lock(&r.mutex);
    return r.setters.value(wanted).setter;
}
