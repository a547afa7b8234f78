#pragma once

#include <esputility/esputility_core_global.h>

#include <QJsonObject>
#include <QString>

#include <memory>

class EspPackage;

// Reads the scatter document a user picked: a loose scatter file, or "scatter.txt" inside a
// package (any path ending in ".zip", whatever its letter case). Validation is the
// ScatterValidator's job; this class only gets the document and, for a package, keeps the
// archive open so that the caller can take it over.
class ESPUTILITY_CORE_EXPORT ScatterLoader
{
public:
    ScatterLoader();
    ~ScatterLoader();
    ScatterLoader(const ScatterLoader &) = delete;
    ScatterLoader &operator=(const ScatterLoader &) = delete;

    static bool isPackagePath(const QString &path);

    // On failure error() holds the text the dialog shows in its warning box, and no package
    // stays open. flashSize: the chip's flash in bytes (0: not known), which caps what a
    // package may unpack to.
    bool load(const QString &path, quint32 flashSize = 0);
    // The same cap, for a package opened before the chip was known; *error: the refusal.
    static bool checkPackageSize(const EspPackage &package, quint32 flashSize, QString *error);

    bool isPackage() const { return m_isPackage; }
    QJsonObject document() const { return m_document; }
    QString error() const { return m_error; }
    // The open package of the last successful package load; null otherwise or once taken.
    EspPackage *package() const { return m_package.get(); }
    std::unique_ptr<EspPackage> takePackage();

    // The warning after a failed validation: "%1 package is invalid: %2" for a package, the
    // validator's message alone for a loose file.
    static QString invalidMessage(const QString &path, bool package, const QString &reason);
    // The success log line of a package: "Loaded package %1: %2" (path, description).
    static QString loadedPackageMessage(const QString &path, const QString &description);

private:
    bool readPackage(const QString &path, quint32 flashSize, QByteArray *bytes);
    bool readLooseFile(const QString &path, QByteArray *bytes);
    bool failed(const QString &message);

    bool m_isPackage = false;
    QJsonObject m_document;
    QString m_error;
    std::unique_ptr<EspPackage> m_package;
};
