#include "jackfixture.h"

#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QThread>

#include <atomic>
#include <csignal>
#include <sys/prctl.h>

const QString JackFixture::PORTAUDIO_CLIENT = QStringLiteral("PortAudio");

namespace {

std::atomic<int> sFixtureCounter{0};

// An ALSA configuration with one device that cannot open (there is no card
// 99), which leaves PortAudio's ALSA host API with no device at all. (A file
// defining nothing makes PortAudio 19.6 trip an assertion while it builds its
// device list, so it has to define something.) Without the system's own
// configuration, a real sound card has no "hw" definition to be opened by.
const char* const EMPTY_ALSA_CONFIG = "# No device for PortAudio to find: see tests/jackfixture.h\n"
                                      "pcm.arbo_test_none {\n"
                                      "    type hw\n"
                                      "    card 99\n"
                                      "}\n";

} // namespace

void JackFixture::ChildProcess::setupChildProcess()
{
    // In the child, between fork and exec: asks the kernel for SIGTERM when
    // the parent goes away.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
}

JackFixture::JackFixture() = default;

JackFixture::~JackFixture()
{
    stop();
}

bool JackFixture::toolsAvailable()
{
    return !QStandardPaths::findExecutable(QStringLiteral("jackd")).isEmpty() &&
           !QStandardPaths::findExecutable(QStringLiteral("jack_capture")).isEmpty() &&
           !QStandardPaths::findExecutable(QStringLiteral("jack_lsp")).isEmpty();
}

QString JackFixture::emptyAlsaConfig()
{
    // One file for the process, removed with it.
    static QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/arbo-alsa-XXXXXX"));
    const QString path = dir.path() + QStringLiteral("/asound.conf");
    if (!QFileInfo::exists(path)) {
        QFile file(path);
        if (file.open(QIODevice::WriteOnly)) {
            file.write(EMPTY_ALSA_CONFIG);
        }
    }
    return path;
}

QString JackFixture::workDir() const
{
    return mDir ? mDir->path() : QString();
}

QProcessEnvironment JackFixture::environment(QProcessEnvironment base) const
{
    base.insert(QStringLiteral("JACK_DEFAULT_SERVER"), mServerName);
    base.insert(QStringLiteral("JACK_NO_START_SERVER"), QStringLiteral("1"));
    base.insert(QStringLiteral("ALSA_CONFIG_PATH"), emptyAlsaConfig());
    return base;
}

void JackFixture::applyToThisProcess() const
{
    const QProcessEnvironment env = environment(QProcessEnvironment());
    for (const QString& key : env.keys()) {
        qputenv(key.toLocal8Bit().constData(), env.value(key).toLocal8Bit());
    }
}

QProcessEnvironment JackFixture::noDeviceEnvironment(QProcessEnvironment base)
{
    // A name no fixture uses: fixtures add a counter after the process id.
    base.insert(QStringLiteral("JACK_DEFAULT_SERVER"),
                QStringLiteral("arbo-no-server-%1").arg(QCoreApplication::applicationPid()));
    base.insert(QStringLiteral("JACK_NO_START_SERVER"), QStringLiteral("1"));
    base.insert(QStringLiteral("ALSA_CONFIG_PATH"), emptyAlsaConfig());
    return base;
}

bool JackFixture::start(int sampleRate, int periodFrames, int timeoutMs, bool realtime)
{
    stop();
    mError.clear();
    mDir = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/arbo-jack-XXXXXX"));
    mSampleRate = sampleRate;
    mPeriodFrames = periodFrames;
    mServerName = QStringLiteral("arbo-test-%1-%2")
                      .arg(QCoreApplication::applicationPid())
                      .arg(sFixtureCounter.fetch_add(1));

    // Output goes to a file: a pipe nobody reads would fill up with xrun
    // messages and stall the server.
    const QString log = workDir() + QStringLiteral("/jackd.log");
    mServer.setStandardOutputFile(log, QIODevice::Append);
    mServer.setStandardErrorFile(log, QIODevice::Append);
    mServer.setProcessEnvironment(environment());
    QStringList args;
    if (realtime) {
        args << QStringLiteral("--realtime") << QStringLiteral("--realtime-priority")
             << QStringLiteral("70");
    } else {
        args << QStringLiteral("--no-realtime");
    }
    args << QStringLiteral("-n") << mServerName << QStringLiteral("-d") << QStringLiteral("dummy")
         << QStringLiteral("-r") << QString::number(sampleRate) << QStringLiteral("-p")
         << QString::number(periodFrames);
    mServer.start(QStringLiteral("jackd"), args);
    if (!mServer.waitForStarted(10000)) {
        mError = QStringLiteral("jackd did not start: %1").arg(mServer.errorString());
        return false;
    }

    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        if (mServer.state() != QProcess::Running) {
            mError = QStringLiteral("jackd ended at start-up:\n%1").arg(serverLog());
            return false;
        }
        if (!ports(QStringLiteral("system:playback_1")).isEmpty()) {
            return true;
        }
        QThread::msleep(100);
    }
    mError = QStringLiteral("jackd did not offer its ports within %1 ms:\n%2")
                 .arg(timeoutMs)
                 .arg(serverLog());
    stop();
    return false;
}

void JackFixture::stopProcess(QProcess& process)
{
    if (process.state() == QProcess::NotRunning) {
        return;
    }
    // QProcess signals exactly the process it started, by its id.
    process.terminate();
    if (!process.waitForFinished(10000)) {
        process.kill();
        process.waitForFinished(5000);
    }
}

void JackFixture::stop()
{
    stopProcess(mCapture);
    stopProcess(mServer);
}

bool JackFixture::isRunning() const
{
    return mServer.state() == QProcess::Running;
}

bool JackFixture::runJackTool(const QString& tool, const QStringList& args, QByteArray* output,
                              int timeoutMs) const
{
    QProcess process;
    process.setProcessEnvironment(environment());
    process.start(tool, args);
    if (!process.waitForStarted(5000)) {
        return false;
    }
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(2000);
        return false;
    }
    if (output) {
        *output = process.readAllStandardOutput();
    }
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QStringList JackFixture::ports(const QString& pattern) const
{
    QByteArray output;
    if (mServerName.isEmpty() || !runJackTool(QStringLiteral("jack_lsp"), {}, &output)) {
        return {};
    }
    QStringList result;
    const QList<QByteArray> lines = output.split('\n');
    for (const QByteArray& line : lines) {
        const QString port = QString::fromLocal8Bit(line).trimmed();
        if (!port.isEmpty() && (pattern.isEmpty() || port.contains(pattern))) {
            result.append(port);
        }
    }
    return result;
}

bool JackFixture::waitForPort(const QString& pattern, int timeoutMs) const
{
    QElapsedTimer timer;
    timer.start();
    do {
        if (!ports(pattern).isEmpty()) {
            return true;
        }
        QThread::msleep(100);
    } while (timer.elapsed() < timeoutMs);
    return false;
}

bool JackFixture::startCapture(const QString& wavPath, double seconds, const QStringList& ports,
                               int channels)
{
    stopProcess(mCapture);
    if (!isRunning()) {
        mError = QStringLiteral("no JACK server runs");
        return false;
    }
    QFile::remove(wavPath);
    mCaptureFile = wavPath;
    const QString log = workDir() + QStringLiteral("/jack_capture.log");
    QFile::remove(log);
    mCapture.setStandardOutputFile(log, QIODevice::Append);
    mCapture.setStandardErrorFile(log, QIODevice::Append);
    mCapture.setProcessEnvironment(environment());
    QStringList args{QStringLiteral("--disable-console"), QStringLiteral("--no-stdin"),
                     QStringLiteral("--recording-time"),  QString::number(seconds),
                     QStringLiteral("--format"),          QStringLiteral("wav"),
                     QStringLiteral("--channels"),        QString::number(channels)};
    for (const QString& port : ports) {
        args << QStringLiteral("--port") << port;
    }
    args << wavPath;
    mCapture.start(QStringLiteral("jack_capture"), args);
    if (!mCapture.waitForStarted(10000)) {
        mError = QStringLiteral("jack_capture did not start: %1").arg(mCapture.errorString());
        return false;
    }
    return true;
}

bool JackFixture::waitForCapture(int timeoutMs)
{
    if (mCapture.state() != QProcess::NotRunning && !mCapture.waitForFinished(timeoutMs)) {
        mError = QStringLiteral("jack_capture did not finish within %1 ms:\n%2")
                     .arg(timeoutMs)
                     .arg(captureLog());
        stopProcess(mCapture);
        return false;
    }
    if (mCapture.exitStatus() != QProcess::NormalExit || mCapture.exitCode() != 0) {
        mError = QStringLiteral("jack_capture failed (exit code %1):\n%2")
                     .arg(mCapture.exitCode())
                     .arg(captureLog());
        return false;
    }
    if (QFileInfo(mCaptureFile).size() <= 44) {
        mError = QStringLiteral("jack_capture wrote no audio:\n%1").arg(captureLog());
        return false;
    }
    return true;
}

bool JackFixture::capture(const QString& wavPath, double seconds, const QStringList& ports,
                          int channels)
{
    return startCapture(wavPath, seconds, ports, channels) &&
           waitForCapture(int(seconds * 1000.0) + 30000);
}

QString JackFixture::serverLog() const
{
    return QString::fromLocal8Bit(TestSupport::readFile(workDir() + QStringLiteral("/jackd.log")));
}

QString JackFixture::captureLog() const
{
    return QString::fromLocal8Bit(
        TestSupport::readFile(workDir() + QStringLiteral("/jack_capture.log")));
}
