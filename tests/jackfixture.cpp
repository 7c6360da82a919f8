#include "jackfixture.h"

#include "audioanalysis.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QStandardPaths>
#include <QTest>
#include <QThread>

#include <algorithm>
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
QString emptyAlsaConfig()
{
    // One file for the process, removed with it.
    static QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/arbo-alsa-XXXXXX"));
    const QString path = dir.path() + QStringLiteral("/asound.conf");
    if (!QFileInfo::exists(path)) {
        TestSupport::writeFile(path, "pcm.arbo_test_none {\n    type hw\n    card 99\n}\n");
    }
    return path;
}

QProcessEnvironment jackEnvironment(QProcessEnvironment base, const QString& serverName)
{
    base.insert(QStringLiteral("JACK_DEFAULT_SERVER"), serverName);
    base.insert(QStringLiteral("JACK_NO_START_SERVER"), QStringLiteral("1"));
    base.insert(QStringLiteral("ALSA_CONFIG_PATH"), emptyAlsaConfig());
    return base;
}

void apply(const QProcessEnvironment& env)
{
    for (const QString& key : env.keys()) {
        qputenv(key.toLocal8Bit().constData(), env.value(key).toLocal8Bit());
    }
}

} // namespace

void JackFixture::ChildProcess::setupChildProcess()
{
    // In the child, between fork and exec: asks the kernel for SIGTERM when
    // the parent goes away.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
}

QString JackFixture::missingTools()
{
    QStringList missing;
    for (const char* tool : {"jackd", "jack_capture", "jack_lsp"}) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty()) {
            missing << QString::fromLatin1(tool);
        }
    }
    return missing.isEmpty() ? QString()
                             : missing.join(QStringLiteral(", ")) +
                                   QStringLiteral(" not found: install the Debian packages jackd2 "
                                                  "and jack-capture (scripts/install-deps.sh does)");
}

QProcessEnvironment JackFixture::environment(QProcessEnvironment base) const
{
    return jackEnvironment(base, mServerName);
}

void JackFixture::applyToThisProcess() const
{
    apply(environment(QProcessEnvironment()));
}

void JackFixture::applyNoDeviceToThisProcess()
{
    apply(noDeviceEnvironment(QProcessEnvironment()));
}

QProcessEnvironment JackFixture::noDeviceEnvironment(QProcessEnvironment base)
{
    // A name no fixture uses: fixtures add a counter after the process id.
    return jackEnvironment(
        base, QStringLiteral("arbo-no-server-%1").arg(QCoreApplication::applicationPid()));
}

bool JackFixture::startTool(ChildProcess& process, const QString& program, const QStringList& args,
                            const QString& logName)
{
    const QString logPath = workDir() + QLatin1Char('/') + logName;
    QFile::remove(logPath);
    process.setStandardOutputFile(logPath, QIODevice::Append);
    process.setStandardErrorFile(logPath, QIODevice::Append);
    process.setProcessEnvironment(environment());
    process.start(program, args);
    if (!process.waitForStarted(10000)) {
        mError = QStringLiteral("%1 did not start: %2").arg(program, process.errorString());
        return false;
    }
    return true;
}

QString JackFixture::log(const QString& logName) const
{
    return QString::fromLocal8Bit(TestSupport::readFile(workDir() + QLatin1Char('/') + logName));
}

bool JackFixture::start(int sampleRate, int periodFrames, int timeoutMs, bool realtime)
{
    stop();
    mError.clear();
    mSampleRate = sampleRate;
    mDir = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/arbo-jack-XXXXXX"));
    mServerName = QStringLiteral("arbo-test-%1-%2")
                      .arg(QCoreApplication::applicationPid())
                      .arg(sFixtureCounter.fetch_add(1));
    const QStringList scheduling = realtime ? QStringList{"--realtime", "--realtime-priority", "70"}
                                            : QStringList{"--no-realtime"};
    // Synchronous: the server waits for every client to finish its cycle.
    // Without real-time scheduling a busy machine often makes a client
    // late, and an asynchronous server would run the cycle without it,
    // losing that client's audio and MIDI for the period; tests that compare
    // every MIDI byte cannot allow that.
    removeServerFiles(); // of an earlier process that had this process id
    mServerArguments = scheduling + QStringList{"--sync", "-n", mServerName, "-d", "dummy", "-r",
                                                QString::number(sampleRate), "-p",
                                                QString::number(periodFrames)};
    return restartServer(timeoutMs);
}

bool JackFixture::restartServer(int timeoutMs)
{
    if (!startTool(mServer, QStringLiteral("jackd"), mServerArguments,
                   QStringLiteral("jackd.log"))) {
        return false;
    }
    QElapsedTimer timer;
    timer.start();
    while (!waitForPort(QStringLiteral("system:playback_1"), 0)) {
        if (mServer.state() != QProcess::Running || timer.elapsed() > timeoutMs) {
            mError = QStringLiteral("jackd did not offer its ports:\n%1").arg(log("jackd.log"));
            stop();
            return false;
        }
    }
    return true;
}

void JackFixture::killServer()
{
    if (mServer.state() != QProcess::NotRunning) {
        mServer.kill();
        mServer.waitForFinished(10000);
    }
    removeServerFiles();
}

void JackFixture::removeServerFiles() const
{
    // A killed server, and the clients killed with it, leave their socket and
    // named semaphores behind. Process ids come round again, and with them
    // server names, so a later server of the same name would find another's
    // semaphores with their old counts; and every test run would add to a
    // pile that never shrinks.
    if (mServerName.isEmpty()) {
        return;
    }
    QDir shm(QStringLiteral("/dev/shm"));
    const QStringList left =
        shm.entryList({QStringLiteral("jack_sem.*_%1_*").arg(mServerName),
                       QStringLiteral("jack_%1_*").arg(mServerName)},
                      QDir::Files | QDir::System | QDir::Hidden);
    for (const QString& name : left) {
        shm.remove(name);
    }
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
    removeServerFiles();
}

bool JackFixture::waitForPort(const QString& pattern, int timeoutMs) const
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        QProcess lsp;
        lsp.setProcessEnvironment(environment());
        lsp.start(QStringLiteral("jack_lsp"), QStringList());
        if (lsp.waitForFinished(5000) && lsp.exitCode() == 0 &&
            QString::fromLocal8Bit(lsp.readAllStandardOutput()).contains(pattern)) {
            return true;
        }
        lsp.kill();
        lsp.waitForFinished(2000);
        QThread::msleep(100);
        if (timer.elapsed() >= timeoutMs) {
            return false;
        }
    }
}

bool JackFixture::capture(const QString& wavPath, double seconds)
{
    stopProcess(mCapture);
    QFile::remove(wavPath);
    const QStringList args = QStringLiteral("--disable-console --no-stdin --recording-time %1 "
                                            "--format wav --channels 2 --port %2:out_*")
                                 .arg(seconds)
                                 .arg(PORTAUDIO_CLIENT)
                                 .split(QLatin1Char(' '))
                             << wavPath;
    if (mServer.state() != QProcess::Running) {
        mError = QStringLiteral("no JACK server runs");
    } else if (startTool(mCapture, QStringLiteral("jack_capture"), args,
                         QStringLiteral("jack_capture.log"))) {
        const bool finished = mCapture.waitForFinished(int(seconds * 1000.0) + 30000);
        stopProcess(mCapture);
        if (finished && mCapture.exitStatus() == QProcess::NormalExit && mCapture.exitCode() == 0 &&
            QFileInfo(wavPath).size() > 44) {
            return true;
        }
        mError = QStringLiteral("jack_capture failed:\n%1").arg(log("jack_capture.log"));
    }
    return false;
}

QVector<float> JackFixture::recordUntil(const QString& name, double seconds,
                                        const std::function<bool(const QVector<float>&)>& done,
                                        int channel, int timeoutMs)
{
    const QString path = workDir() + QLatin1Char('/') + name + QStringLiteral(".wav");
    QElapsedTimer timer;
    timer.start();
    QVector<float> samples;
    do {
        if (!capture(path, seconds)) {
            return QVector<float>();
        }
        samples = AudioAnalysis::readWav(path).channel(channel);
    } while (!done(samples) && timer.elapsed() < timeoutMs);
    return samples;
}

bool JackFixture::hears(double frequency, int channel, int timeoutMs)
{
    const auto near = [this, frequency](const QVector<float>& samples) {
        return AudioAnalysis::soundsNear(samples, frequency, mSampleRate);
    };
    const QVector<float> heard = recordUntil(QStringLiteral("tone"), 1.0, near, channel, timeoutMs);
    if (!heard.isEmpty() && !near(heard)) {
        mError = QStringLiteral("no tone: ") + AudioAnalysis::heardNear(heard, frequency, mSampleRate);
    }
    return near(heard);
}

bool JackFixture::hearsSilence(int timeoutMs)
{
    const QVector<float> heard =
        recordUntil(QStringLiteral("silence"), 0.5, AudioAnalysis::isSilent, 0, timeoutMs);
    if (!heard.isEmpty() && !AudioAnalysis::isSilent(heard)) {
        mError = QStringLiteral("no silence: %1 dB").arg(AudioAnalysis::rmsDb(heard));
    }
    return AudioAnalysis::isSilent(heard);
}

ProgramOnJack::ProgramOnJack(const JackFixture& jack, const QMap<QString, QByteArray>& files)
    : environment(jack.environment())
{
    environment.insert(QStringLiteral("XDG_DATA_HOME"), home.path());
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    for (auto file = files.begin(); file != files.end(); ++file) {
        configured = TestSupport::writeFile(config(file.key()), file.value()) && configured;
    }
}

QString ProgramOnJack::config(const QString& name) const
{
    return home.path() + QStringLiteral("/Merrow Tuning Arbo/") + name;
}

QString ProgramOnJack::log() const
{
    return QString::fromUtf8(TestSupport::readFile(config(QStringLiteral("log.txt"))));
}

bool ProgramOnJack::start(const QStringList& lines)
{
    process.start(TestSupport::mainBinary(), QStringList());
    const auto ready = [&] {
        const QString text = log();
        return process.state() != QProcess::Running ||
               std::all_of(lines.begin(), lines.end(), [&](const QString& l) { return text.contains(l); });
    };
    if (configured && process.waitForStarted() && QTest::qWaitFor(ready, 30000) &&
        process.state() == QProcess::Running) {
        return true;
    }
    qWarning().noquote() << log();
    return false;
}

qint64 ProgramOnJack::terminate(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    process.terminate();
    if (!process.waitForFinished(timeoutMs) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        return -1;
    }
    return timer.elapsed();
}

QJsonObject ProgramOnJack::options() const
{
    return QJsonDocument::fromJson(TestSupport::readFile(config(QStringLiteral("options.json"))))
        .object();
}
