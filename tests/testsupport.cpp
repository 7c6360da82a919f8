#include "testsupport.h"

#include "display/arboballwidget.h"
#include "display/arboview.h"
#include "display/arbowidget.h"
#include "model/arboball.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageBox>
#include <QMutex>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtEndian>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <memory>

namespace TestSupport {

namespace {
std::unique_ptr<QTemporaryDir> sHome;
QMutex sLogMutex;
QStringList sLog;
QtMessageHandler sDefaultHandler = nullptr;
bool sEcho = false;

void keepMessage(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    {
        QMutexLocker lock(&sLogMutex);
        sLog << (type == QtCriticalMsg ? QStringLiteral("CRITICAL: ") : QString()) + text;
    }
    if (sEcho) {
        sDefaultHandler(type, context, text);
    }
}
} // namespace

QString isolateHome()
{
    if (!sHome) {
        sHome =
            std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/arbo-test-XXXXXX"));
        const QByteArray path = QFile::encodeName(sHome->path());
        qputenv("HOME", path);
        qputenv("XDG_DATA_HOME", path + "/.local/share");
        qputenv("XDG_CONFIG_HOME", path + "/.config");
        qputenv("XDG_CACHE_HOME", path + "/.cache");
        QDir().mkpath(sHome->path() + QStringLiteral("/runtime"));
        QFile::setPermissions(sHome->path() + QStringLiteral("/runtime"),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner |
                                  QFileDevice::ExeOwner);
        qputenv("XDG_RUNTIME_DIR", path + "/runtime");
    }
    return sHome->path();
}

QString home()
{
    return sHome ? sHome->path() : QString();
}

QString configDir()
{
    return home() + QStringLiteral("/.local/share/Merrow Tuning Arbo");
}

QString binDir()
{
    return QCoreApplication::applicationDirPath();
}

QString mainBinary()
{
    return binDir() + QStringLiteral("/merrow-tuning-arbo");
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }
    return file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString dataDir()
{
    return QStringLiteral(ARBO_TEST_DATA_DIR);
}

QString tuningDataDir()
{
    return qEnvironmentVariable("ARBO_TUNING_DATA",
                                QStringLiteral(ARBO_SOURCE_DIR "/../shared/tuning-data"));
}

QString missingTuningFiles()
{
    if (!QFileInfo::exists(tuningDataDir() + QStringLiteral("/FORMATS.md"))) {
        return QStringLiteral("The shared tuning files are missing: expected them in ") +
               tuningDataDir() +
               QStringLiteral(" (set ARBO_TUNING_DATA to the folder tuning-data beside the sources)");
    }
    if (!QFileInfo::exists(binDir() + QStringLiteral("/arbo-tuning"))) {
        return QStringLiteral("arbo-tuning is not built: build the target arbo-tuning");
    }
    return QString();
}

ArboConstants::Rational pitchClass(ArboConstants::Rational ratio)
{
    while (ratio >= ArboConstants::Rational(2)) {
        ratio /= 2;
    }
    while (ratio < ArboConstants::Rational(1)) {
        ratio *= 2;
    }
    return ratio;
}

quint16 freeUdpPort()
{
    QUdpSocket socket;
    socket.bind(QHostAddress::Any, 0, QUdpSocket::DontShareAddress);
    return socket.localPort();
}

QByteArray oscMessage(const char* address, const char* types, ...)
{
    lo_message message = lo_message_new();
    va_list args;
    va_start(args, types);
    lo_message_add_varargs(message, types, args);
    va_end(args);
    size_t size = 0;
    void* data = lo_message_serialise(message, address, nullptr, &size);
    const QByteArray bytes(static_cast<const char*>(data), int(size));
    std::free(data);
    lo_message_free(message);
    return bytes;
}

QByteArray oscBundle(const QList<QByteArray>& elements)
{
    QByteArray bundle = QByteArray("#bundle\0", 8) + QByteArray(8, '\x7f');
    for (const QByteArray& element : elements) {
        const quint32 size = qToBigEndian(quint32(element.size()));
        bundle += QByteArray(reinterpret_cast<const char*>(&size), 4) + element;
    }
    return bundle;
}

void captureLog(bool echo)
{
    sEcho = echo;
    sDefaultHandler = qInstallMessageHandler(keepMessage);
}

QStringList loggedLines()
{
    QMutexLocker lock(&sLogMutex);
    return sLog;
}

void clearLog()
{
    QMutexLocker lock(&sLogMutex);
    sLog.clear();
}

bool logged(const QString& line)
{
    return loggedLines().contains(line);
}

long long loggedCount(const QString& line, const QString& summary)
{
    long long total = 0;
    for (const QString& text : loggedLines()) {
        total += text.startsWith(line)    ? 1
                 : text.endsWith(summary) ? text.section(' ', 0, 0).toLongLong()
                                          : 0;
    }
    return total;
}

} // namespace TestSupport

namespace TestSupport {

ArboBallWidget* ballAt(const ArboView* view, const QString& path)
{
    const ArboPath wanted(path);
    for (ArboBallWidget* ball : view->arboWidget()->balls()) {
        if (ball->node()->path() == wanted) {
            return ball;
        }
    }
    return nullptr;
}

QMessageBox* visibleMessageBox()
{
    const QWidgetList windows = QApplication::topLevelWidgets();
    for (QWidget* window : windows) {
        auto* box = qobject_cast<QMessageBox*>(window);
        if (box && box->isVisible()) {
            return box;
        }
    }
    return nullptr;
}

MessageBoxAnswerer::MessageBoxAnswerer()
{
    connect(&mTimer, &QTimer::timeout, this, [this] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            printLine(QStringLiteral("MESSAGEBOX: ") + box->text());
            mTitles << box->windowTitle();
            mTexts << box->text();
            ++mAnswered;
            box->done(QMessageBox::Ok);
        }
    });
    mTimer.start(10);
}

QStringList MessageBoxAnswerer::answeredBoxes() const
{
    QStringList boxes;
    for (int i = 0; i < mTexts.size(); ++i) {
        boxes << mTitles.at(i) + QStringLiteral(" | ") + mTexts.at(i);
    }
    return boxes;
}

void printLine(const QString& line)
{
    std::printf("%s\n", qPrintable(QString(line).replace(QLatin1Char('\n'), QLatin1String("\\n"))));
    std::fflush(stdout);
}

QStringList messageBoxesIn(const QString& output)
{
    QStringList boxes;
    const QStringList lines = output.split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("MESSAGEBOX: "))) {
            boxes << line.mid(12).replace(QLatin1String("\\n"), QLatin1String("\n"));
        }
    }
    return boxes;
}

std::vector<char*> childArguments(int argc, char** argv)
{
    std::vector<char*> args{argv[0]};
    for (int i = 2; i < argc; ++i) {
        args.push_back(argv[i]);
    }
    return args;
}

} // namespace TestSupport
