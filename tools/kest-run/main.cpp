// kest-run: the standalone host. Loads libKestNDI.so.1, builds a graph of nodes from a JSON
// file and drives it with JSON lines on stdin; events go to stdout, log lines to stderr.

#include "catalogue.h"
#include "runner.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QLibrary>
#include <QSocketNotifier>
#include <QTextStream>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int kExitBadUsage = 2;
constexpr int kMaxLineBytes = 16 * 1024 * 1024;
const char kLibraryName[] = "libKestNDI.so.1";

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    const ssize_t written = ::write(signalPipe[1], &byte, 1);
    (void)written;
}

void printUsage(FILE *to)
{
    std::fprintf(to,
                 "usage: kest-run [--lib PATH] GRAPH.json\n"
                 "       kest-run [--lib PATH] --list\n"
                 "Runs a graph of nodes from libKestNDI.so.1. Control lines (JSON) on stdin:\n"
                 "  {\"node\":\"n\",\"call\":\"slot\",\"args\":[...]}   {\"node\":\"n\",\"set\":{...}}\n"
                 "  {\"node\":\"n\",\"start\":true}   {\"node\":\"n\",\"stop\":true}\n"
                 "  {\"node\":\"n\",\"event\":{\"type\":\"T\",\"value\":V}}   {\"quit\":true}\n");
}

QStringList libraryCandidates(const QString &explicitPath)
{
    if (!explicitPath.isEmpty())
        return {explicitPath};
    const QString appDir = QCoreApplication::applicationDirPath();
    const QString name = QString::fromLatin1(kLibraryName);
    return {appDir + QLatin1Char('/') + name, appDir + QStringLiteral("/../lib/") + name,
            QStringLiteral(KEST_INSTALL_LIBDIR "/") + name};
}

bool loadPlugin(const QString &explicitPath, QString *error)
{
    // Kept for the whole run and never unloaded: the classes it registered must outlive every
    // node (a QLibrary going out of scope does not unload the library either).
    static QLibrary library;
    QStringList candidates = libraryCandidates(explicitPath);
    if (explicitPath.isEmpty())
        candidates << QString::fromLatin1(kLibraryName); // through the loader's search path
    QStringList tried;
    const int classesBefore = nodeClasses().size();
    for (const QString &candidate : qAsConst(candidates)) {
        if (explicitPath.isEmpty() && candidate.contains(QLatin1Char('/')) && !QFileInfo::exists(candidate))
            continue;
        library.setFileName(candidate);
        if (!library.load()) {
            tried << library.errorString();
            continue;
        }
        // A plug-in registers its node classes while it loads; any other library adds none.
        if (nodeClasses().size() > classesBefore)
            return true;
        *error = QStringLiteral("%1 is not a plug-in of nodes: loading it registered no node class").arg(candidate);
        return false;
    }
    *error = QStringLiteral("cannot load %1: %2").arg(QString::fromLatin1(kLibraryName), tried.join(QStringLiteral("; ")));
    return false;
}

// Reads stdin without a thread: the notifier says a read will not block. End of input leaves
// the run going; only {"quit":true} or a signal ends it.
class InputReader : public QObject
{
public:
    explicit InputReader(Runner *runner) : QObject(runner), runner(runner), notifier(STDIN_FILENO, QSocketNotifier::Read, this)
    {
        connect(&notifier, &QSocketNotifier::activated, this, [this] { readSome(); });
    }

private:
    void readSome()
    {
        char chunk[65536];
        const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof(chunk));
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        if (n <= 0) {
            notifier.setEnabled(false);
            if (!pending.isEmpty() && !skipping)
                runner->handleLine(std::exchange(pending, {}));
            return;
        }
        // Lines are cut out of the chunk as it comes, so that finding a line's end never scans
        // the same bytes twice, and no more than one line of at most kMaxLineBytes is held.
        const char *begin = chunk;
        const char *const end = chunk + n;
        while (begin < end) {
            const char *newline = static_cast<const char *>(std::memchr(begin, '\n', size_t(end - begin)));
            const char *stop = newline ? newline : end;
            if (!skipping && pending.size() + (stop - begin) > kMaxLineBytes) {
                pending.clear();
                pending.squeeze();
                skipping = true;
                runner->handleError(QStringLiteral("line too long"));
            }
            if (!skipping)
                pending.append(begin, int(stop - begin));
            if (!newline)
                break;
            if (!skipping)
                runner->handleLine(std::exchange(pending, {}));
            skipping = false;
            begin = newline + 1;
        }
    }

    Runner *runner;
    QSocketNotifier notifier;
    QByteArray pending;
    bool skipping = false; // inside a line that was too long, up to its end
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kest-run"));

    QString libraryPath;
    QString graphPath;
    bool list = false;
    const QStringList args = app.arguments().mid(1);
    for (int i = 0; i < args.size(); ++i) {
        const QString &arg = args.at(i);
        if (arg == QLatin1String("--lib") && i + 1 < args.size()) {
            libraryPath = args.at(++i);
        } else if (arg == QLatin1String("--list")) {
            list = true;
        } else if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
            printUsage(stdout);
            return 0;
        } else if (!arg.startsWith(QLatin1String("--")) && graphPath.isEmpty()) {
            graphPath = arg;
        } else {
            std::fprintf(stderr, "kest-run: unexpected argument '%s'\n", qPrintable(arg));
            printUsage(stderr);
            return kExitBadUsage;
        }
    }
    if (!list && graphPath.isEmpty()) {
        printUsage(stderr);
        return kExitBadUsage;
    }

    QString error;
    if (!loadPlugin(libraryPath, &error)) {
        std::fprintf(stderr, "kest-run: %s\n", qPrintable(error));
        return kExitBadUsage;
    }

    if (list) {
        QTextStream out(stdout);
        for (const NodeClass &nodeClass : nodeClasses()) {
            out << nodeClass.name << '\n';
            for (const QString &signature : slotSignatures(nodeClass.metaObject))
                out << "    " << signature << '\n';
        }
        return 0;
    }

    QFile file(graphPath);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "kest-run: cannot read graph %s: %s\n", qPrintable(graphPath), qPrintable(file.errorString()));
        return kExitBadUsage;
    }
    Runner runner;
    if (!runner.load(file.readAll(), &error)) {
        std::fprintf(stderr, "kest-run: bad graph %s: %s\n", qPrintable(graphPath), qPrintable(error));
        return kExitBadUsage;
    }

    // SIGINT and SIGTERM end the run cleanly, through the event loop.
    if (::pipe2(signalPipe, O_CLOEXEC) == 0) {
        auto *signalNotifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &runner);
        QObject::connect(signalNotifier, &QSocketNotifier::activated, &runner, [&runner] { runner.quit(0); });
        struct sigaction action{};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
    }
    std::signal(SIGPIPE, SIG_IGN);

    new InputReader(&runner);
    runner.startNodes();
    return app.exec();
}
