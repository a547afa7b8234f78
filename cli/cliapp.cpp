#include "cli/cliapp.h"

#include "cli/boardsession.h"
#include "cli/clicommandtable.h"
#include "cli/cliconsole.h"
#include "cli/eraseoperation.h"
#include "cli/flashoperation.h"
#include "cli/infooperation.h"
#include "cli/readoperation.h"
#include "cli/scatterinput.h"
#include "cli/verifyoperation.h"
#include "cli/virtualboards.h"
#include "cli/writeoperation.h"
#include "flasher/esppackagewriter.h"
#include "flasher/scatterloader.h"
#include "image/espimageparser.h"
#include "serial/qcomport.h"
#include "widgets/texthelpers.h"
#include "worker/esptoolworker.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QStandardPaths>

namespace {

using Operations = std::vector<std::unique_ptr<BoardOperation>>;

template <typename... Ts>
Operations operations(std::unique_ptr<Ts>... items)
{
    Operations list;
    (list.push_back(std::move(items)), ...);
    return list;
}

FlashPlan::Tone toneOf(EspPackageWriter::Severity severity)
{
    switch (severity) {
    case EspPackageWriter::Severity::Success:
        return FlashPlan::Tone::Success;
    case EspPackageWriter::Severity::Notice:
        return FlashPlan::Tone::Notice;
    case EspPackageWriter::Severity::Error:
        break;
    }
    return FlashPlan::Tone::Error;
}

// Where an installation keeps the demo package, relative to this program.
QString installedDemoPackage()
{
    return QDir::cleanPath(
        QDir(QCoreApplication::applicationDirPath())
            .absoluteFilePath(QStringLiteral(ESP_INSTALLED_DATA_DIR "/demo.zip")));
}

// The build tree's demo package when this program runs from there, else the installed one.
QString defaultDemoPackage()
{
    const QString built = QDir(QCoreApplication::applicationDirPath())
                              .absoluteFilePath(QStringLiteral("../demo/demo.zip"));
    return QFileInfo(built).isFile() ? built : installedDemoPackage();
}

// The read-back goes beside the package, except beside the installed one: that folder belongs
// to the system's package manager, so it goes to the user's cache.
QString defaultDemoOutput(const QString &package)
{
    if (QDir::cleanPath(QFileInfo(package).absoluteFilePath()) == installedDemoPackage()) {
        return QDir(QStandardPaths::writableLocation(QStandardPaths::CacheLocation))
            .absoluteFilePath(QStringLiteral("demo-readback"));
    }
    return QFileInfo(package).absoluteDir().absoluteFilePath(QStringLiteral("readback"));
}

// Larger files are no scatter file a read would have written.
constexpr qint64 maxScatterFileBytes = 1024 * 1024;

bool holdsScatterDocument(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > maxScatterFileBytes)
        return false;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    return document.isObject() && document.object().value(QLatin1String("sections")).isArray();
}

// The files a read of these regions writes into dir.
QStringList regionFiles(const QVector<FlashRegion> &regions, const QDir &dir)
{
    QStringList files;
    for (const FlashRegion &region : regions)
        files << dir.absoluteFilePath(ReadOperation::fileNameFor(region));
    return files;
}

QString padded(const QString &text, int width)
{
    return text.leftJustified(width, QLatin1Char(' '));
}

} // namespace

CliApp::CliApp(const CliArguments &arguments, CliConsole &console)
    : m_args(arguments), m_console(console)
{}

CliApp::~CliApp() = default;

int CliApp::run()
{
    if (m_args.version) {
        m_console.plain(
            QStringLiteral("ESP Utility %1").arg(QCoreApplication::applicationVersion()));
        return ExitOk;
    }
    if (m_args.help) {
        const CliCommandTable::Command *command = CliCommandTable::findCommand(m_args.command);
        m_console.plain(
            (command ? CliCommandTable::commandHelp(*command) : CliCommandTable::globalHelp())
                .trimmed());
        return ExitOk;
    }
    const QString &command = m_args.command;
    if (command.isEmpty())
        return usage(QStringLiteral("no command given (see esp-utility --help)"));
    if (command == QLatin1String("ports"))
        return runPorts();
    if (command == QLatin1String("image-info"))
        return runImageInfo();
    if (command == QLatin1String("pack"))
        return runPack();
    if (command == QLatin1String("info"))
        return runInfo();
    if (command == QLatin1String("flash"))
        return runFlash();
    if (command == QLatin1String("verify"))
        return runVerify();
    if (command == QLatin1String("read"))
        return runRead();
    if (command == QLatin1String("erase"))
        return runErase();
    if (command == QLatin1String("demo"))
        return runDemo();
    if (command == QLatin1String("write"))
        return runWrite();
    if (command == QLatin1String("completion"))
        return runCompletion();
    return usage(QStringLiteral("unknown command %1 (see esp-utility --help)").arg(command));
}

int CliApp::usage(const QString &message)
{
    m_console.usageError(message);
    return ExitUsage;
}

bool CliApp::needArguments(int count)
{
    if (m_args.positional.size() == count)
        return true;
    usage(commandUsage());
    return false;
}

QString CliApp::commandUsage() const
{
    const CliCommandTable::Command *command = CliCommandTable::findCommand(m_args.command);
    return QStringLiteral("usage: %1 (see esp-utility %2 --help)")
        .arg(CliCommandTable::synopsis(*command), command->name);
}

bool CliApp::checkLoaderOption(bool required, int *exitCode)
{
    if (!m_args.stub.isEmpty()) {
        const QFileInfo loader(m_args.stub);
        if (!loader.isFile() || !loader.isReadable()) {
            *exitCode = usage(QStringLiteral("cannot read the flash loader %1").arg(m_args.stub));
            return false;
        }
        m_loaderFile = loader.absoluteFilePath();
        return true;
    }
    if (required) {
        *exitCode = usage(
            QStringLiteral("%1 needs the flash loader: pass --stub FILE").arg(m_args.command));
        return false;
    }
    return true;
}

bool CliApp::loadScatter(const QString &path, int *exitCode)
{
    m_input = std::make_unique<ScatterInput>(m_args.yes, m_loaderFile);
    QString error;
    if (!m_input->load(path, &error)) {
        *exitCode = usage(CliConsole::plainText(error));
        return false;
    }
    const auto sink = [this](FlashPlan::Tone tone, const QString &text) {
        m_console.line(tone, text);
    };
    if (!m_input->preflight(sink, &error)) {
        *exitCode = usage(CliConsole::plainText(error));
        return false;
    }
    return true;
}

bool CliApp::parseRegions(const QStringList &texts, QVector<FlashRegion> *regions, int *exitCode)
{
    QSet<QString> seen;
    for (const QString &text : texts) {
        FlashRegion region;
        switch (FlashRegion::parseRange(text, &region)) {
        case FlashRegion::Parse::Ok:
            break;
        case FlashRegion::Parse::Empty:
            *exitCode = usage(QStringLiteral("region %1 is empty or runs past 4 GiB").arg(text));
            return false;
        case FlashRegion::Parse::BadNumber:
        case FlashRegion::Parse::NoColon:
            *exitCode =
                usage(QStringLiteral("region %1 is not ADDRESS:SIZE or ADDRESS-END").arg(text));
            return false;
        }
        const QString name = ReadOperation::fileNameFor(region);
        if (seen.contains(name)) {
            *exitCode = usage(QStringLiteral("region %1 is given twice").arg(text));
            return false;
        }
        seen.insert(name);
        regions->append(region);
    }
    return true;
}

bool CliApp::checkReadTargets(const QString &scatterPath, const QStringList &files, int *exitCode)
{
    const QString replace = QStringLiteral("pass --force to replace it");
    for (const QString &path : files) {
        if (path == scatterPath) {
            *exitCode =
                usage(QStringLiteral("%1 would hold both the scatter file and a region").arg(path));
            return false;
        }
    }
    const QStringList targets = QStringList(files) << scatterPath;
    for (const QString &path : targets) {
        const QFileInfo file(path);
        if (file.isDir()) {
            *exitCode = usage(QStringLiteral("%1 is a directory").arg(path));
            return false;
        }
        if (!file.exists() || m_args.force)
            continue;
        if (path == scatterPath && !holdsScatterDocument(path)) {
            *exitCode =
                usage(QStringLiteral("%1 exists and is not a scatter file; %2").arg(path, replace));
        } else {
            *exitCode = usage(QStringLiteral("%1 exists; %2").arg(path, replace));
        }
        return false;
    }
    return true;
}

bool CliApp::resolveBoards(int *exitCode)
{
    int virtualCount = m_args.virtualCount;
    // The demo needs no board of its own.
    if (m_args.command == QLatin1String("demo") && virtualCount == 0 && m_args.ports.isEmpty())
        virtualCount = 1;
    if (virtualCount > 0) {
        m_virtual = std::make_unique<VirtualBoards>();
        if (!m_virtual->start(virtualCount)) {
            m_console.line(
                FlashPlan::Tone::Error,
                QStringLiteral("cannot start a virtual ESP8266: %1").arg(m_virtual->errorString()));
            *exitCode = ExitFailed;
            return false;
        }
        for (const QString &port : m_virtual->ports())
            m_console.plain(QStringLiteral("Virtual ESP8266 started on %1").arg(port));
        m_ports = m_virtual->ports();
    }
    for (const QString &given : m_args.ports) {
        // ttyUSB0, /dev/ttyUSB0 and a /dev/serial/by-id link all name the same port.
        const QString port = QComPort::resolvePortName(given);
        if (port.isEmpty()) {
            *exitCode =
                usage(QStringLiteral("no serial port %1 (see esp-utility ports)").arg(given));
            return false;
        }
        if (m_ports.contains(port)) {
            *exitCode = usage(QStringLiteral("port %1 is given twice").arg(given));
            return false;
        }
        m_ports << port;
    }
    if (m_ports.isEmpty()) {
        *exitCode = usage(QStringLiteral("no board: pass --port PATH or --virtual"));
        return false;
    }
    return true;
}

int CliApp::runBoards(const OperationFactory &factory, bool loaderFromScatter)
{
    m_console.setBoardPrefix(m_ports.size() > 1);
    std::vector<std::unique_ptr<BoardSession>> sessions;
    QEventLoop loop;
    const auto allDone = [&sessions] {
        return std::all_of(sessions.cbegin(), sessions.cend(),
                           [](const auto &session) { return session->isDone(); });
    };
    for (const QString &port : qAsConst(m_ports)) {
        auto session = std::make_unique<BoardSession>(port, m_console);
        BoardSession::LineOptions line;
        line.resetBefore = m_args.resetBefore;
        line.resetAfter = m_args.resetAfter;
        line.baud = m_args.baud;
        line.skipUnchanged = m_args.skipUnchanged;
        session->setLineOptions(line);
        if (loaderFromScatter && m_input)
            session->setLoaderInput(m_input.get());
        else if (!m_loaderFile.isEmpty())
            session->setLoaderFile(m_loaderFile);
        for (auto &operation : factory())
            session->addOperation(std::move(operation));
        QObject::connect(session.get(), &BoardSession::done, &loop, [&] {
            if (allDone())
                loop.quit();
        });
        sessions.push_back(std::move(session));
    }
    for (const auto &session : sessions)
        session->start();
    if (!allDone())
        loop.exec();

    printSummary(sessions);
    const bool succeeded = std::all_of(sessions.cbegin(), sessions.cend(),
                                       [](const auto &session) { return session->succeeded(); });
    return succeeded ? ExitOk : ExitFailed;
}

void CliApp::printSummary(const std::vector<std::unique_ptr<BoardSession>> &sessions)
{
    struct Row
    {
        QString port, chip, mac, result;
    };
    QVector<Row> rows{{QStringLiteral("PORT"), QStringLiteral("CHIP"), QStringLiteral("MAC"),
                       QStringLiteral("RESULT")}};
    for (const auto &session : sessions) {
        const QString none = QStringLiteral("-");
        const QString result =
            session->succeeded()
                ? QStringLiteral("ok") + (session->summary().isEmpty()
                                              ? QString()
                                              : QStringLiteral(" (%1)").arg(session->summary()))
                : QStringLiteral("FAILED: %1").arg(session->failure());
        rows.append({session->port(),
                     session->chipDescription().isEmpty() ? none : session->chipDescription(),
                     session->mac().isEmpty() ? none : session->mac(), result});
    }
    int widths[3] = {0, 0, 0};
    for (const Row &row : rows) {
        widths[0] = qMax(widths[0], row.port.size());
        widths[1] = qMax(widths[1], row.chip.size());
        widths[2] = qMax(widths[2], row.mac.size());
    }
    m_console.plain();
    for (const Row &row : rows) {
        m_console.plain(padded(row.port, widths[0] + 2) + padded(row.chip, widths[1] + 2) +
                        padded(row.mac, widths[2] + 2) + row.result);
    }
}

int CliApp::runPorts()
{
    int exitCode = ExitOk;
    if (m_args.virtualCount > 0 && !resolveBoards(&exitCode))
        return exitCode;
    const QVector<QComPort::PortEntry> ports = QComPort::availablePortEntries();
    if (ports.isEmpty()) {
        m_console.plain(QStringLiteral("No serial ports found"));
        return ExitOk;
    }
    const QString none = QStringLiteral("-");
    const auto orNone = [&none](const QString &text) { return text.isEmpty() ? none : text; };
    QVector<QStringList> rows{{QStringLiteral("PORT"), QStringLiteral("DESCRIPTION"),
                               QStringLiteral("MANUFACTURER"), QStringLiteral("VID:PID"),
                               QStringLiteral("SERIAL")}};
    for (const QComPort::PortEntry &entry : ports) {
        rows.append({entry.path, orNone(entry.description), orNone(entry.manufacturer),
                     orNone(entry.vendorProduct()), orNone(entry.serialNumber)});
    }
    QVector<int> widths(rows.first().size(), 0);
    for (const QStringList &row : rows) {
        for (int i = 0; i < row.size(); ++i)
            widths[i] = qMax(widths[i], row.at(i).size());
    }
    for (const QStringList &row : rows) {
        QString line;
        for (int i = 0; i + 1 < row.size(); ++i)
            line += padded(row.at(i), widths.at(i) + 2);
        m_console.plain(line + row.last());
    }
    return ExitOk;
}

int CliApp::runImageInfo()
{
    if (!needArguments(1))
        return ExitUsage;
    const QString path = m_args.positional.first();
    const QFileInfo info(path);
    if (!info.isFile() || !info.isReadable())
        return usage(QStringLiteral("cannot read %1").arg(path));
    unsigned int trailer = 0;
    if (!m_args.trailer.isEmpty()) {
        bool ok = false;
        trailer = parseUnsignedInteger(m_args.trailer, &ok);
        if (!ok)
            return usage(QStringLiteral("--trailer takes an offset, not %1").arg(m_args.trailer));
    }
    ESPImageParser parser;
    const unsigned char keep = ESPImageParser::kCodeNotGiven;
    if (!parser.load(path, keep, keep, keep)) {
        m_console.line(FlashPlan::Tone::Error,
                       QStringLiteral("%1 is not an ESP8266 firmware image").arg(path));
        return ExitFailed;
    }
    m_console.plain(parser.dumpInfo(trailer).trimmed());
    m_console.plain(QStringLiteral("Segments:"));
    const QList<ESPImageParser::Segment> &segments = parser.segments();
    for (int i = 0; i < segments.size(); ++i) {
        const ESPImageParser::Segment &segment = segments.at(i);
        m_console.plain(QStringLiteral("  %1: %2 - %3  %4 bytes")
                            .arg(i)
                            .arg(ScatterSection::addressText(segment.first),
                                 ScatterSection::addressText(segment.first + segment.second))
                            .arg(segment.second));
    }
    return ExitOk;
}

int CliApp::runPack()
{
    if (!needArguments(1))
        return ExitUsage;
    if (m_args.output.isEmpty())
        return usage(QStringLiteral("pack needs -o PACKAGE.zip"));
    if (!m_args.descriptionGiven)
        return usage(QStringLiteral("pack needs --description TEXT (it also keys the package)"));
    const QString scatter = m_args.positional.first();
    if (ScatterLoader::isPackagePath(scatter))
        return usage(QStringLiteral("pack makes packages of loose scatter files; %1 is a package")
                         .arg(scatter));
    int exitCode = ExitOk;
    if (!checkLoaderOption(false, &exitCode) || !loadScatter(scatter, &exitCode))
        return exitCode;

    EspPackageWriter writer([this](EspPackageWriter::Severity severity, const QString &text) {
        m_console.line(toneOf(severity), text);
    });
    if (!writer.open(EspPackageWriter::withZipSuffix(m_args.output)))
        return ExitFailed;
    writer.setDescription(m_args.description);
    const bool written = writer.addStub(m_input->loaderText()) &&
                         writer.addSections(m_input->rows(), m_input->directory(), m_args.trim) &&
                         writer.finish(m_input->documentChip());
    return written ? ExitOk : ExitFailed;
}

int CliApp::runInfo()
{
    if (!needArguments(0))
        return ExitUsage;
    int exitCode = ExitOk;
    if (!checkLoaderOption(false, &exitCode) || !resolveBoards(&exitCode))
        return exitCode;
    const bool loaderGiven = !m_loaderFile.isEmpty();
    return runBoards(
        [loaderGiven] { return operations(std::make_unique<InfoOperation>(loaderGiven)); }, false);
}

int CliApp::runFlash()
{
    if (!needArguments(1))
        return ExitUsage;
    FlashOperation::Kinds kinds = FlashOperation::Kinds::All;
    if (m_args.only == QLatin1String("firmware"))
        kinds = FlashOperation::Kinds::FirmwareOnly;
    else if (m_args.only == QLatin1String("application"))
        kinds = FlashOperation::Kinds::ApplicationOnly;
    else if (!m_args.only.isEmpty())
        return usage(
            QStringLiteral("--only takes firmware or application, not %1").arg(m_args.only));

    int exitCode = ExitOk;
    if (!checkLoaderOption(false, &exitCode) || !loadScatter(m_args.positional.first(), &exitCode))
        return exitCode;
    QVector<ScatterSection> rows = m_input->rows();
    if (!FlashOperation::selectKinds(&rows, kinds))
        return usage(QStringLiteral("%1 has no %2 section").arg(m_input->path(), m_args.only));
    if (!resolveBoards(&exitCode))
        return exitCode;
    ScatterInput &input = *m_input;
    return runBoards(
        [&input, kinds] { return operations(std::make_unique<FlashOperation>(input, kinds)); },
        true);
}

int CliApp::runVerify()
{
    if (!needArguments(1))
        return ExitUsage;
    const QString target = m_args.positional.first();
    int exitCode = ExitOk;
    if (QFileInfo::exists(target) || !target.contains(QLatin1Char(':'))) {
        if (!checkLoaderOption(false, &exitCode) || !loadScatter(target, &exitCode) ||
            !resolveBoards(&exitCode))
            return exitCode;
        ScatterInput &input = *m_input;
        return runBoards([&input] { return operations(std::make_unique<VerifyOperation>(input)); },
                         true);
    }
    FlashRegion region;
    if (FlashRegion::parseAddressSize(target, &region) != FlashRegion::Parse::Ok)
        return usage(QStringLiteral("region %1 is not ADDRESS:SIZE").arg(target));
    if (!checkLoaderOption(true, &exitCode) || !resolveBoards(&exitCode))
        return exitCode;
    return runBoards([region] { return operations(std::make_unique<VerifyOperation>(region)); },
                     false);
}

int CliApp::runRead()
{
    if (m_args.scatter.isEmpty())
        return usage(QStringLiteral("read needs --scatter OUT.txt and one or more regions"));
    if (m_args.positional.isEmpty())
        return usage(
            QStringLiteral("read needs one or more regions (ADDRESS:SIZE or ADDRESS-END)"));
    int exitCode = ExitOk;
    QVector<FlashRegion> regions;
    if (!parseRegions(m_args.positional, &regions, &exitCode) ||
        !checkLoaderOption(true, &exitCode))
        return exitCode;
    const QFileInfo scatter(m_args.scatter);
    if (scatter.isDir())
        return usage(QStringLiteral("%1 is a directory, not a scatter file").arg(m_args.scatter));
    if (!QDir().mkpath(scatter.absolutePath()))
        return usage(QStringLiteral("cannot create the directory %1").arg(scatter.absolutePath()));
    if (m_args.ports.size() + m_args.virtualCount > 1)
        return usage(QStringLiteral("read works on one board at a time"));
    const QString scatterPath = scatter.absoluteFilePath();
    if (!checkReadTargets(scatterPath, regionFiles(regions, scatter.absoluteDir()), &exitCode) ||
        !resolveBoards(&exitCode))
        return exitCode;
    const QString loader = m_loaderFile;
    return runBoards(
        [regions, scatterPath, loader] {
            return operations(std::make_unique<ReadOperation>(regions, scatterPath, loader));
        },
        false);
}

int CliApp::runErase()
{
    if (!needArguments(1))
        return ExitUsage;
    const QString target = m_args.positional.first();
    const QString text = target == QLatin1String("all")
                             ? QStringLiteral("0x%1").arg(ESPToolWorker::wholeChipErase, 0, 16)
                             : target;
    FlashRegion region;
    switch (FlashRegion::parseErase(text, &region)) {
    case FlashRegion::Parse::Ok:
        break;
    case FlashRegion::Parse::NoColon:
        return usage(QStringLiteral("%1: %2 (use all or ADDRESS:SIZE)")
                         .arg(FlashRegion::invalidEraseFormatMessage(), target));
    case FlashRegion::Parse::BadNumber:
    case FlashRegion::Parse::Empty:
        return usage(QStringLiteral("region %1 is not ADDRESS:SIZE").arg(target));
    }
    int exitCode = ExitOk;
    if (!checkLoaderOption(true, &exitCode) || !resolveBoards(&exitCode))
        return exitCode;
    return runBoards([region] { return operations(std::make_unique<EraseOperation>(region)); },
                     false);
}

int CliApp::runWrite()
{
    const QStringList &arguments = m_args.positional;
    if (arguments.isEmpty() || arguments.size() % 2 != 0)
        return usage(commandUsage());
    QVector<WriteOperation::Item> items;
    for (int i = 0; i < arguments.size(); i += 2) {
        bool ok = false;
        const unsigned int address = parseUnsignedInteger(arguments.at(i), &ok);
        if (!ok)
            return usage(QStringLiteral("%1 is not an address").arg(arguments.at(i)));
        const QFileInfo file(arguments.at(i + 1));
        if (!file.isFile() || !file.isReadable())
            return usage(QStringLiteral("cannot read %1").arg(arguments.at(i + 1)));
        items.append({address, file.absoluteFilePath()});
    }
    WriteOperation::FlashOptions options;
    options.mode = m_args.flashMode;
    options.size = m_args.flashSize;
    options.frequency = m_args.flashFreq;
    QString error;
    if (!WriteOperation::checkOptions(options, &error))
        return usage(error);
    int exitCode = ExitOk;
    if (!checkLoaderOption(false, &exitCode))
        return exitCode;
    if (m_loaderFile.isEmpty())
        m_loaderFile = FlashPlan::defaultLoaderPath();
    if (!resolveBoards(&exitCode))
        return exitCode;
    return runBoards(
        [items, options] { return operations(std::make_unique<WriteOperation>(items, options)); },
        false);
}

int CliApp::runDemo()
{
    if (m_args.positional.size() > 1)
        return usage(commandUsage());
    const QString package = m_args.positional.value(0, defaultDemoPackage());
    if (!QFileInfo(package).isFile())
        return usage(QStringLiteral("cannot read the demo package %1 (build it with scripts/build)")
                         .arg(package));
    if (m_args.ports.size() + m_args.virtualCount > 1)
        return usage(QStringLiteral("the demo works on one board"));
    int exitCode = ExitOk;
    if (!checkLoaderOption(false, &exitCode) || !loadScatter(package, &exitCode))
        return exitCode;

    const QDir out(m_args.out.isEmpty() ? defaultDemoOutput(package) : m_args.out);
    if (!QDir().mkpath(out.absolutePath()))
        return usage(QStringLiteral("cannot create the directory %1").arg(out.absolutePath()));
    QVector<FlashRegion> regions;
    for (const ScatterSection &row : m_input->rows()) {
        if (row.hasCells && row.active)
            regions << FlashRegion(row.startAddress, row.endAddress - row.startAddress);
    }
    const QString readBack = out.absoluteFilePath(QStringLiteral("scatter.txt"));
    QStringList written = regionFiles(regions, out);
    if (m_input->isPackage())
        written << m_input->exportedLoaderPath(out);
    if (!checkReadTargets(readBack, written, &exitCode))
        return exitCode;
    QString error;
    const QString loader = m_input->exportLoader(out, &error);
    if (loader.isEmpty())
        return usage(error);

    m_console.plain(QStringLiteral("Demo package %1: %2").arg(package, m_input->description()));
    if (!resolveBoards(&exitCode))
        return exitCode;
    ScatterInput &input = *m_input;
    exitCode = runBoards(
        [&input, regions, readBack, loader] {
            return operations(std::make_unique<FlashOperation>(input, FlashOperation::Kinds::All),
                              std::make_unique<VerifyOperation>(input),
                              std::make_unique<ReadOperation>(regions, readBack, loader));
        },
        true);

    m_console.plain();
    if (exitCode != ExitOk) {
        m_console.plain(QStringLiteral("The demo failed; the lines above say where."));
        return exitCode;
    }
    m_console.plain(
        QStringLiteral(
            "Demo complete: %1 section(s) flashed from the package, verified by MD5 and read back without a board.")
            .arg(regions.size()));
    m_console.plain(QStringLiteral("  read-back scatter: %1").arg(readBack));
    m_console.plain(
        QStringLiteral("  flash it again:    esp-utility flash %1 --virtual").arg(readBack));
    m_console.plain(QStringLiteral("  on a real board:   esp-utility flash %1 --port /dev/ttyUSB0")
                        .arg(package));
    return ExitOk;
}

int CliApp::runCompletion()
{
    if (m_args.positional != QStringList{QStringLiteral("bash")})
        return usage(commandUsage());
    m_console.plain(CliCommandTable::bashCompletion().trimmed());
    return ExitOk;
}
