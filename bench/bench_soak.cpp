// A soak run: the real program, played for a long time at the rate of a busy
// stage, and what it is left with at the end.
//
//   bench_soak [--minutes N] [--jack-restart-minutes M] [--seed S]
//
// (default 10 minutes, a JACK restart every 10 minutes; make soak, make soak
// MINUTES=60.)
//
// The built program runs in a window of its own on a private X display (Xvfb)
// with a private JACK server on the dummy driver as its sound card, in a
// temporary home folder holding its configuration. It is played at once by
// every source it has, at tens of events a second with a burst of hundreds
// every half minute or so: clicks at random points of the lattice and keys of
// the computer keyboard (xdotool, as X input), wand datagrams over UDP, MIDI
// notes and controllers from a JACK MIDI keyboard that the program connects
// to itself ("midiPorts"), program changes among them, which recall scenes,
// and OSC messages, a little hostile input among them. Every minute an OSC
// patch step changes the voice; every ten minutes (from minute five on) the
// JACK server is killed and started again, which the program must notice and
// come back from.
//
// At the end every source lets go of what it holds, OSC says "Stop all" and
// sets the volume and base frequency one last time, and the engine's state is
// read from the header of a performance log (an OSC record command starts
// and stops one): the notes still sounding (stuck) and the voices still in
// use. A JACK MIDI client that listens to the program's MIDI output, while
// there is one, counts the notes it started and did not end. Then SIGTERM
// (the stacks of a program that does not end are kept), and the table: crashes,
// stuck notes, voices, resident memory (start, after the warm-up, end, and
// the growth after the warm-up per hour, compared under the same patch), the
// log's size, the xruns and the
// worst callback (the program logs them per audio stream as it closes), the
// device's recoveries, and whether the options, the lattice and the maps were
// saved intact. The exit code is 0 only when every goal is met; otherwise the
// program's home folder and the run's logs (memory.csv: every sample of the
// resident memory and its parts) are kept and named.
//
// SIGINT or SIGTERM ends the run early, with the table.

#include "input/inputmap.h"
#include "input/wanddatagram.h"
#include "jackfixture.h"
#include "jackmidisender.h"
#include "model/arbo.h"
#include "testsupport.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>
#include <QTimer>
#include <QUdpSocket>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sys/prctl.h>
#include <vector>

namespace {

constexpr int TICK_MS = 20;
constexpr double PATCH_CHANGE_SECONDS = 60.0;
constexpr double BURST_SECONDS = 1.0;
constexpr double BURST_FACTOR = 12.0;
constexpr double MEMORY_GOAL_MB_PER_HOUR = 5.0;
// What the end sets, for the options file to hold.
constexpr double FINAL_VOLUME = 0.55;
constexpr double FINAL_BASE_FREQUENCY = 437.5;
const QString FIRST_PATCH = QStringLiteral("Sine.pd");
// Our MIDI keyboard, which the program connects to itself by this name.
const QString KEYBOARD = QStringLiteral("soak-keys");
const char* const PROGRAM_PORT = "Merrow Tuning Arbo";

// Events per second of each source between bursts (releases not counted).
struct Rates
{
    double clicks = 4, keys = 4, wand = 6, midiNotes = 8, midiControllers = 6, osc = 10,
           hostile = 0.3;
};

// The lattice's paths that the wands, OSC and the note keys play.
const char* const PATHS[] = {"/",     "/3",    "/-3",  "/5",     "/-5",  "/3/5",
                             "/3/-5", "/-3/5", "/7",   "/11",    "/13",  "/2",
                             "/-2",   "/2/3",  "/3/3", "/-3/-3", "/3/7", "/-2/3/3"};
const char* const NOTE_KEYS[] = {"a", "s", "d", "f", "g", "h", "w", "e", "r", "t", "y", "u", "z",
                                 "x", "c", "v", "b", "j", "k", "l", "i", "o", "p", "q", "n", "m"};
const char* const TRANSPOSE_KEYS[] = {"1", "2", "3", "4", "5", "6", "7", "8", "0"};

volatile std::sig_atomic_t sStopRequested = 0;
void onStopSignal(int)
{
    sStopRequested = 1;
}

// A helper process that ends with this one, even when this one is killed.
class ChildProcess : public QProcess
{
protected:
    void setupChildProcess() override { ::prctl(PR_SET_PDEATHSIG, SIGTERM); }
};

void stopChild(QProcess& process)
{
    if (process.state() != QProcess::NotRunning) {
        process.terminate();
        if (!process.waitForFinished(5000)) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
}

QString missingTools()
{
    QStringList missing;
    for (const auto& tool :
         {std::make_pair("Xvfb", "xvfb"), std::make_pair("xdotool", "xdotool")}) {
        if (QStandardPaths::findExecutable(QLatin1String(tool.first)).isEmpty()) {
            missing << QStringLiteral("%1 (Debian package %2)").arg(tool.first, tool.second);
        }
    }
    const QString jack = JackFixture::missingTools();
    return (missing.isEmpty() ? QString() : missing.join(", ") + " not found; ") + jack;
}

// A figure of /proc/<pid>/status in MB ("VmRSS", and its parts "RssAnon",
// "RssFile" and "RssShmem"); -1 when there is none.
double statusMb(const QByteArray& status, const char* key)
{
    const QRegularExpression line(QStringLiteral("^%1:\\s+(\\d+) kB").arg(QLatin1String(key)),
                                  QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = line.match(QString::fromLatin1(status));
    return match.hasMatch() ? match.captured(1).toDouble() / 1024.0 : -1.0;
}

// The program's log, read as it grows (it turns into log.txt.1 at 10 MB),
// counting the lines the report needs.
class LogWatch
{
public:
    explicit LogWatch(const QString& path) : mPath(path) {}

    void poll()
    {
        QFile file(mPath);
        if (!file.open(QIODevice::ReadOnly)) {
            return;
        }
        if (file.size() < mOffset) { // turned over: the rest of the old one first
            QFile old(mPath + QStringLiteral(".1"));
            if (old.open(QIODevice::ReadOnly) && old.seek(mOffset)) {
                take(old.readAll());
            }
            mBytesBefore += mOffset;
            mOffset = 0;
        }
        file.seek(mOffset);
        const QByteArray bytes = file.readAll();
        mOffset += bytes.size();
        take(bytes);
    }
    qint64 bytesWritten() const { return mBytesBefore + mOffset; }

    int lost = 0, restored = 0, criticals = 0, patchLoads = 0, streams = 0;
    quint64 callbacks = 0, xruns = 0, overruns = 0;
    double worstMs = 0.0, worstP99Ms = 0.0, periodMs = 0.0;

private:
    void take(const QByteArray& bytes)
    {
        mPartial += bytes;
        int start = 0;
        for (int end; (end = mPartial.indexOf('\n', start)) >= 0; start = end + 1) {
            line(QString::fromUtf8(mPartial.mid(start, end - start)));
        }
        mPartial.remove(0, start);
    }
    void line(const QString& text)
    {
        static const QRegularExpression stream(QStringLiteral(
            "Audio stream closed after (\\d+) callbacks: (\\d+) xruns, (\\d+) overruns, worst "
            "([0-9.]+) ms, 99th percentile ([0-9.]+) ms, period ([0-9.]+) ms"));
        lost += text.contains(QLatin1String("Audio device lost"));
        restored += text.contains(QLatin1String("Audio device opened again"));
        criticals += text.contains(QLatin1String("CRITICAL"));
        patchLoads += text.contains(QLatin1String("Loading voice patch"));
        const QRegularExpressionMatch m = stream.match(text);
        if (m.hasMatch()) {
            ++streams;
            callbacks += m.captured(1).toULongLong();
            xruns += m.captured(2).toULongLong();
            overruns += m.captured(3).toULongLong();
            worstMs = std::max(worstMs, m.captured(4).toDouble());
            worstP99Ms = std::max(worstP99Ms, m.captured(5).toDouble());
            periodMs = m.captured(6).toDouble();
        }
    }

    QString mPath;
    qint64 mOffset = 0;
    qint64 mBytesBefore = 0;
    QByteArray mPartial;
};

// The engine's state as the header of a performance log shows it.
struct EngineState
{
    bool read = false;
    int notes = 0;    // voices in use: sounding or fading
    int sounding = 0; // of them, still sounding
    double volume = -1.0;
    double baseFrequency = -1.0;
};

class Soak : public QObject
{
public:
    Soak(double minutes, double restartMinutes, quint32 seed)
        : mSeconds(minutes * 60.0), mRestartSeconds(restartMinutes * 60.0), mRandom(seed)
    {
    }
    // Whatever way the run ends, nothing it started runs on.
    ~Soak() override
    {
        mQuitting = true;
        if (mProgram) {
            stopChild(mProgram->process);
        }
        stopChild(mXdo);
        stopChild(mXvfb);
    }

    bool setUp(QString& error);
    // Plays until the time is up, the program ends or a signal asks to stop.
    void run();
    // Lets go, reads the end state, quits the program, checks its files and
    // prints the table. True when every goal is met.
    bool finish();

private:
    double elapsed() const { return mClock.elapsed() / 1000.0; }
    bool chance(double perSecond)
    {
        return std::bernoulli_distribution(perSecond * mTickSeconds)(mRandom);
    }
    int count(double perSecond)
    {
        return std::poisson_distribution<int>(perSecond * mTickSeconds)(mRandom);
    }
    int pick(int size) { return std::uniform_int_distribution<int>(0, size - 1)(mRandom); }
    double uniform(double low, double high)
    {
        return std::uniform_real_distribution<double>(low, high)(mRandom);
    }

    void tick();
    void playEveryone(double factor);
    void click();
    void pressKey();
    void sendWand();
    void sendMidi();
    void sendOsc();
    void sendHostile();
    void releaseDue(bool all);
    void restartJack();
    void watchJack();
    void listenToMidiOutput();
    void hearMidiOutput();
    void sampleMemory();

    bool startDisplay(QString& error);
    bool writeConfiguration();
    bool startXdotool(QString& error);
    void xdotool(const QString& line);
    void osc(const QByteArray& datagram)
    {
        mSocket.writeDatagram(datagram, QHostAddress::LocalHost, mOscPort);
    }
    EngineState probeEngine();
    QString terminate();
    QStringList checkSavedFiles();

    const double mSeconds;
    const double mRestartSeconds;
    std::mt19937 mRandom;
    double mTickSeconds = TICK_MS / 1000.0;
    QElapsedTimer mClock;
    QTemporaryDir mWork;

    ChildProcess mXvfb;
    ChildProcess mXdo;
    QString mDisplay;
    QString mWindow;
    int mWindowWidth = 0, mWindowHeight = 0;
    JackFixture mJack;
    std::unique_ptr<ProgramOnJack> mProgram;
    std::unique_ptr<LogWatch> mLog;
    QUdpSocket mSocket;
    quint16 mOscPort = 0, mUdpPort = 0;
    JackMidiSender mMidi;
    QString mRecordings;
    QMap<QString, QByteArray> mWritten; // configuration files as written

    // What each source holds, and when it lets go (seconds of the run).
    std::map<QString, double> mHeldKeys;
    std::map<int, double> mHeldMidi;
    std::map<QString, double> mHeldOsc;

    // The program's MIDI output as our client hears it: notes on and not ended,
    // by channel and key.
    bool mHearingOutput = false;
    std::set<std::pair<int, int>> mOutputNotes;
    quint64 mOutputNoteOns = 0;
    double mNextOutputTry = 0.0;

    // Bursts, patch changes, JACK restarts, the memory and the log.
    double mBurstUntil = -1.0, mNextBurst = 20.0;
    double mNextPatchChange = PATCH_CHANGE_SECONDS, mNextJackRestart = mRestartSeconds / 2;
    enum class JackPhase
    {
        Running,
        Killed,
        Restarted
    } mJackPhase = JackPhase::Running;
    double mJackPhaseSince = 0.0;
    int mLostBefore = 0, mRestoredBefore = 0;
    int mJackRestarts = 0, mRecoveries = 0;
    double mWorstRecoverySeconds = 0.0;
    double mNextMemorySample = 0.0, mNextLogPoll = 0.0, mNextReport = 60.0;
    std::vector<std::pair<double, double>> mMemory; // (seconds, MB)
    // Sampled just before each patch change, n-th change at [n]: the same
    // patch has played before the changes n, n + mPatchCount, ...
    std::vector<std::pair<double, double>> mBeforeChange;
    int mPatchCount = 1;
    double mWarmUp = 0.0;

    std::map<QString, quint64> mSent; // events per source
    int mBursts = 0;
    bool mInTick = false;
    bool mQuitting = false;
    bool mCrashed = false;
    QString mCrash;
    QTimer mTimer;
};

bool Soak::startDisplay(QString& error)
{
    // Xvfb picks a free display itself and names it on the descriptor given.
    mXvfb.setStandardErrorFile(mWork.filePath("xvfb.log"));
    mXvfb.start("Xvfb", {"-displayfd", "1", "-screen", "0", "1400x900x24", "-nolisten", "tcp"});
    QElapsedTimer waited;
    waited.start();
    while (!mXvfb.canReadLine() && waited.elapsed() < 30000 &&
           mXvfb.state() != QProcess::NotRunning) {
        mXvfb.waitForReadyRead(1000);
    }
    const QByteArray number = mXvfb.readLine().trimmed();
    if (number.isEmpty()) {
        error = "Xvfb did not start: " +
                QString::fromLocal8Bit(TestSupport::readFile(mWork.filePath("xvfb.log")));
        return false;
    }
    mDisplay = ":" + QString::fromLatin1(number);
    return true;
}

bool Soak::writeConfiguration()
{
    mUdpPort = TestSupport::freeUdpPort();
    mOscPort = TestSupport::freeUdpPort();
    mRecordings = mWork.filePath("recordings");
    const QJsonObject options{{"udpPort", mUdpPort},         {"updateCheckInterval", 4},
                              {"windowSize", "1200,820"},    {"windowPos", "0,0"},
                              {"defaultPatch", FIRST_PATCH}, {"masterVolume", 0.7},
                              {"baseFrequency", 440}};
    // The default key map and MIDI notes, with OSC on and our keyboard named.
    InputMap inputMap;
    inputMap.initWithDefaults();
    QJsonObject input;
    inputMap.write(input);
    input.insert("oscPort", mOscPort);
    input.insert("midiPorts", QJsonArray{KEYBOARD});
    // Wand tags: notes, transpositions and volume steps.
    QJsonObject tags;
    for (int i = 0; i < int(std::size(PATHS)); ++i) {
        tags.insert(QStringLiteral("soak%1").arg(i, 6, 10, QLatin1Char('0')),
                    QJsonObject{{"event", 0}, {"value", PATHS[i]}});
    }
    const std::pair<int, double> others[] = {{2, 3}, {2, -3},   {2, 5},
                                             {2, 0}, {5, 0.05}, {5, -0.05}};
    for (int i = 0; i < int(std::size(others)); ++i) {
        tags.insert(QStringLiteral("soak%1").arg(100 + i, 6, 10, QLatin1Char('0')),
                    QJsonObject{{"event", others[i].first}, {"value", others[i].second}});
    }
    // The default lattice with one colour of our own, to be found again.
    Arbo lattice;
    lattice.initWithDefaults();
    QJsonObject tree;
    lattice.write(tree);
    QJsonArray colours = tree.value("colors").toArray();
    for (int i = 0; i < colours.size(); ++i) {
        if (colours[i].toObject().value("prime").toInt() == 7) {
            colours[i] = QJsonObject{{"prime", 7}, {"color", "#3a6e9f"}};
        }
    }
    tree.insert("colors", colours);

    // A cue list that MIDI program changes recall, its panel hidden: the
    // clicks stay on the lattice. The scenes keep the patch that plays, so
    // that the patch steps go round every voice.
    QJsonArray scenes;
    for (const auto& [path, ratio] : {std::make_pair("/3", "3/2"), std::make_pair("/5", "5/4"),
                                      std::make_pair("/-5", "8/5"), std::make_pair("/7", "7/4")}) {
        scenes.append(
            QJsonObject{{"name", path},
                        {"notes", QJsonArray{QJsonObject{{"ratio", "1/1"}, {"path", "/"}},
                                             QJsonObject{{"ratio", ratio}, {"path", path}}}}});
    }
    const QJsonObject cueLists{
        {"format", 1},
        {"panelVisible", false},
        {"lists", QJsonArray{QJsonObject{{"name", "Soak"}, {"scenes", scenes}}}}};

    const auto json = [](const QJsonObject& o) { return QJsonDocument(o).toJson(); };
    mWritten = {{"options.json", json(options)},
                {"input_map.json", json(input)},
                {"rfid_map.json", json(tags)},
                {Arbo::FILE_NAME, json(tree)},
                {"scenes.json", json(cueLists)},
                {"recording.json", json({{"folder", mRecordings}, {"audio", false}})}};
    mProgram = std::make_unique<ProgramOnJack>(mJack, mWritten);
    return mProgram->configured;
}

bool Soak::setUp(QString& error)
{
    if (!(error = missingTools()).isEmpty()) {
        return false;
    }
    if (!startDisplay(error)) {
        return false;
    }
    if (!mJack.start(44100, 256)) {
        error = mJack.error();
        return false;
    }
    mJack.applyToThisProcess(); // for our MIDI keyboard
    if (!writeConfiguration()) {
        error = "cannot write the configuration files";
        return false;
    }
    ProgramOnJack& program = *mProgram;
    // In a real window on our display, whatever this process was started with.
    program.environment.insert("QT_QPA_PLATFORM", "xcb");
    program.environment.insert("DISPLAY", mDisplay);
    program.environment.insert("HOME", program.home.path());
    program.environment.insert("XDG_CONFIG_HOME", program.home.path());
    program.process.setProcessEnvironment(program.environment);
    program.process.setProcessChannelMode(QProcess::SeparateChannels);
    program.process.setStandardOutputFile(mWork.filePath("program.out"));
    program.process.setStandardErrorFile(mWork.filePath("program.out"), QIODevice::Append);
    if (!program.start({"Main window painted", "OSC input listening", "Opening PD patch",
                        QStringLiteral("UDP socket opened on port %1").arg(mUdpPort)})) {
        error = "the program did not start; its log:\n" + program.log().right(3000);
        return false;
    }
    connect(&program.process, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            [this](int code, QProcess::ExitStatus status) {
                if (!mQuitting) {
                    mCrashed = true;
                    mCrash = status == QProcess::CrashExit
                                 ? QStringLiteral("crashed at %1 s").arg(elapsed(), 0, 'f', 0)
                                 : QStringLiteral("ended with code %1 at %2 s")
                                       .arg(code)
                                       .arg(elapsed(), 0, 'f', 0);
                }
            });
    mLog = std::make_unique<LogWatch>(program.config("log.txt"));
    if (!mMidi.open(KEYBOARD) || !startXdotool(error)) {
        error = error.isEmpty() ? "cannot open the JACK MIDI keyboard" : error;
        return false;
    }
    return true;
}

bool Soak::startXdotool(QString& error)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DISPLAY", mDisplay);
    QProcess search;
    search.setProcessEnvironment(environment);
    search.start("xdotool", {"search", "--sync", "--onlyvisible", "--name", "^Merrow Tuning Arbo"});
    const bool found = search.waitForFinished(30000);
    mWindow = QString::fromLatin1(search.readAllStandardOutput()).split('\n').value(0).trimmed();
    search.kill();
    search.waitForFinished();
    QProcess geometry;
    geometry.setProcessEnvironment(environment);
    geometry.start("xdotool", {"getwindowgeometry", "--shell", mWindow});
    geometry.waitForFinished(10000);
    const QString shell = QString::fromLatin1(geometry.readAllStandardOutput());
    mWindowWidth = QRegularExpression("WIDTH=(\\d+)").match(shell).captured(1).toInt();
    mWindowHeight = QRegularExpression("HEIGHT=(\\d+)").match(shell).captured(1).toInt();
    if (!found || mWindow.isEmpty() || mWindowWidth < 400 || mWindowHeight < 300) {
        error = "the program's window was not found on " + mDisplay;
        return false;
    }
    // One xdotool for the whole run, reading its commands line by line.
    mXdo.setProcessEnvironment(environment);
    mXdo.setStandardOutputFile(mWork.filePath("xdotool.log"));
    mXdo.setStandardErrorFile(mWork.filePath("xdotool.log"), QIODevice::Append);
    mXdo.start("xdotool", {"-"});
    if (!mXdo.waitForStarted(10000)) {
        error = "xdotool did not start";
        return false;
    }
    // Keys go to the window with the focus; there is no window manager to give it.
    xdotool("windowfocus " + mWindow);
    return true;
}

void Soak::xdotool(const QString& line)
{
    if (mXdo.state() == QProcess::Running) {
        mXdo.write(line.toLatin1() + '\n');
    }
}

void Soak::run()
{
    std::signal(SIGINT, onStopSignal);
    std::signal(SIGTERM, onStopSignal);
    // The warm-up lasts a fifth of the run, and at least until the patch
    // steps (one a minute) have gone round the voice patches three times:
    // the engine plays from a pool of three Pd instances, and the first time
    // a patch opens in an instance takes memory for good, up to tens of MB
    // (the allocator keeps it). Never more than half of the run.
    const int patches =
        QDir(TestSupport::binDir() + "/patches").entryList({"*.pd"}, QDir::Files).size();
    mPatchCount = std::max(1, int(patches));
    const double rounds = 3 * patches * PATCH_CHANGE_SECONDS + 30.0;
    mWarmUp = std::min(mSeconds / 2, std::max(mSeconds / 5, rounds));
    mClock.start();
    sampleMemory();
    listenToMidiOutput();
    QEventLoop loop;
    connect(&mTimer, &QTimer::timeout, this, [&] {
        tick();
        if (mCrashed || sStopRequested || elapsed() >= mSeconds) {
            loop.quit();
        }
    });
    mTimer.start(TICK_MS);
    loop.exec();
    mTimer.stop();
}

void Soak::tick()
{
    // Waits below (a JACK restart, a MIDI connection) run the event loop.
    if (mInTick) {
        return;
    }
    mInTick = true;
    const double now = elapsed();
    if (now >= mNextBurst) {
        mBurstUntil = now + BURST_SECONDS;
        mNextBurst = now + uniform(15.0, 45.0);
        ++mBursts;
    }
    playEveryone(now < mBurstUntil ? BURST_FACTOR : 1.0);
    releaseDue(false);
    if (now >= mNextPatchChange) {
        mNextPatchChange += PATCH_CHANGE_SECONDS;
        sampleMemory();
        if (!mMemory.empty()) {
            mBeforeChange.push_back(mMemory.back());
        }
        osc(OSC("/arbo/event", "if", 8, 1.0f));
        ++mSent["patch changes"];
    }
    if (now >= mNextJackRestart && mJackPhase == JackPhase::Running) {
        mNextJackRestart += mRestartSeconds;
        restartJack();
    }
    if (now >= mNextLogPoll) {
        mNextLogPoll = now + 1.0;
        mLog->poll();
        watchJack();
        listenToMidiOutput();
        if (mXdo.state() != QProcess::Running) {
            QString error;
            ++mSent["xdotool restarts"];
            startXdotool(error);
        }
    }
    hearMidiOutput();
    if (now >= mNextMemorySample) {
        mNextMemorySample = now + 5.0;
        sampleMemory();
    }
    if (now >= mNextReport) {
        mNextReport += 60.0;
        quint64 events = 0;
        for (const auto& sent : mSent) {
            events += sent.second;
        }
        std::printf("[%3d min] %llu events, RSS %.1f MB, log %.0f KB, %d JACK restarts\n",
                    int(now / 60.0 + 0.5), static_cast<unsigned long long>(events),
                    mMemory.empty() ? -1.0 : mMemory.back().second, mLog->bytesWritten() / 1024.0,
                    mJackRestarts);
        std::fflush(stdout);
    }
    mInTick = false;
}

void Soak::playEveryone(double factor)
{
    const Rates r;
    for (int n = count(r.clicks * factor); n > 0; --n) {
        click();
    }
    for (int n = count(r.keys * factor); n > 0; --n) {
        pressKey();
    }
    for (int n = count(r.wand * factor); n > 0; --n) {
        sendWand();
    }
    for (int n = count((r.midiNotes + r.midiControllers) * factor); n > 0; --n) {
        sendMidi();
    }
    for (int n = count(r.osc * factor); n > 0; --n) {
        sendOsc();
    }
    if (chance(r.hostile)) {
        sendHostile();
    }
}

void Soak::click()
{
    // Inside the lattice: below the patch and macro bar, above the buttons
    // at the bottom (a dialog would take the mouse from the lattice), left
    // of the note cards.
    const int x = int(uniform(0.02, 0.85) * mWindowWidth);
    const int y = int(uniform(0.13, 0.88) * mWindowHeight);
    xdotool(QStringLiteral("mousemove --window %1 %2 %3 click 1").arg(mWindow).arg(x).arg(y));
    ++mSent["clicks"];
}

void Soak::pressKey()
{
    // Mostly notes, held a moment; now and then a transposition.
    const bool transpose = chance(5.0);
    const QString key =
        QLatin1String(transpose ? TRANSPOSE_KEYS[pick(int(std::size(TRANSPOSE_KEYS)))]
                                : NOTE_KEYS[pick(int(std::size(NOTE_KEYS)))]);
    if (mHeldKeys.count(key)) {
        return;
    }
    xdotool("keydown " + key);
    mHeldKeys[key] = elapsed() + uniform(0.05, transpose ? 0.1 : 1.5);
    ++mSent["keys"];
}

void Soak::sendWand()
{
    const int tag = chance(10.0) ? 100 + pick(6) : pick(int(std::size(PATHS)));
    const WandDatagram datagram(
        std::uint8_t(1 + pick(4)),
        QStringLiteral("soak%1").arg(tag, 6, 10, QLatin1Char('0')).toLatin1());
    mSocket.writeDatagram(datagram.toBytes(), QHostAddress::LocalHost, mUdpPort);
    ++mSent["wand"];
}

void Soak::sendMidi()
{
    const Rates r;
    const int channel = pick(16);
    if (uniform(0.0, r.midiNotes + r.midiControllers) < r.midiNotes) {
        // The default map's keys, A2 to G#6, held a moment.
        const int note = 45 + pick(48);
        if (mHeldMidi.count(note)) {
            return;
        }
        mMidi.send({std::uint8_t(0x90 | channel), std::uint8_t(note), std::uint8_t(1 + pick(127))});
        mHeldMidi[note] = elapsed() + uniform(0.05, 2.0);
    } else {
        // The macros (70 to 77), the volume (7), what the map ignores, and
        // now and then a program change, which recalls a scene.
        const int controllers[] = {70, 71, 72, 73, 74, 75, 76, 77, 7, 1, 64};
        if (chance(2.0)) {
            mMidi.send({std::uint8_t(0xc0 | channel), std::uint8_t(pick(4))});
        } else {
            mMidi.send({std::uint8_t(0xb0 | channel),
                        std::uint8_t(controllers[pick(int(std::size(controllers)))]),
                        std::uint8_t(pick(128))});
        }
    }
    ++mSent["MIDI"];
}

void Soak::sendOsc()
{
    const char* path = PATHS[pick(int(std::size(PATHS)))];
    switch (pick(6)) {
    case 0:
        osc(OSC("/arbo/toggle", "s", path));
        break;
    case 1:
        if (!mHeldOsc.count(path)) {
            osc(OSC("/arbo/note", "si", path, 1));
            mHeldOsc[path] = elapsed() + uniform(0.05, 2.0);
        }
        break;
    case 2:
        osc(OSC("/arbo/tag", "s", "soak000003"));
        break;
    case 3: // a macro
        osc(OSC("/arbo/event", "if", 11 + pick(8), float(uniform(0.0, 1.0))));
        break;
    default: { // the volumes, the base frequency, a transposition, monophonic
        const std::pair<int, float> events[] = {{6, float(uniform(0.3, 0.9))},
                                                {4, float(uniform(0.5, 1.0))},
                                                {9, float(uniform(430.0, 450.0))},
                                                {2, float(chance(25.0) ? 0 : (pick(2) ? 3 : -5))},
                                                {7, float(chance(10.0))}};
        const auto& event = events[pick(int(std::size(events)))];
        osc(OSC("/arbo/event", "if", event.first, event.second));
    }
    }
    ++mSent["OSC"];
}

void Soak::sendHostile()
{
    // What a stage network brings now and then: tags and addresses nobody
    // knows, values out of range. Each is refused and logged, throttled.
    switch (pick(4)) {
    case 0:
        mSocket.writeDatagram(WandDatagram(9, "unknown123").toBytes(), QHostAddress::LocalHost,
                              mUdpPort);
        break;
    case 1:
        osc(OSC("/arbo/nothing", "i", 1));
        break;
    case 2:
        osc(OSC("/arbo/event", "if", 9, 1e9f));
        break;
    default:
        osc(OSC("/arbo/toggle", "s", "/4/4"));
    }
    ++mSent["hostile"];
}

void Soak::releaseDue(bool all)
{
    const double now = all ? 1e300 : elapsed();
    const auto due = [now](auto& held, const auto& release) {
        for (auto it = held.begin(); it != held.end();) {
            if (it->second <= now) {
                release(it->first);
                it = held.erase(it);
            } else {
                ++it;
            }
        }
    };
    due(mHeldKeys, [this](const QString& key) { xdotool("keyup " + key); });
    due(mHeldMidi, [this](int note) { mMidi.send({0x80, std::uint8_t(note), 0}); });
    due(mHeldOsc,
        [this](const QString& path) { osc(OSC("/arbo/note", "si", qPrintable(path), 0)); });
}

void Soak::restartJack()
{
    // The server dies under every client: ours is let go untouched, as libjack
    // may have freed it already.
    mLog->poll();
    mLostBefore = mLog->lost;
    mRestoredBefore = mLog->restored;
    mJack.killServer();
    mMidi.abandon();
    mHearingOutput = false;
    mOutputNotes.clear();
    mHeldMidi.clear(); // their note-offs have nowhere to go
    mJackPhase = JackPhase::Killed;
    mJackPhaseSince = elapsed();
    ++mJackRestarts;
}

void Soak::watchJack()
{
    const double since = elapsed() - mJackPhaseSince;
    if (mJackPhase == JackPhase::Killed && (mLog->lost > mLostBefore || since > 10.0)) {
        // The program has noticed (or should have): the server comes back.
        if (!mJack.restartServer()) {
            std::fprintf(stderr, "bench_soak: JACK did not start again: %s\n",
                         qPrintable(mJack.error()));
            sStopRequested = 1;
            return;
        }
        mMidi.open(KEYBOARD);
        mJackPhase = JackPhase::Restarted;
        mJackPhaseSince = elapsed();
    } else if (mJackPhase == JackPhase::Restarted && mLog->restored > mRestoredBefore) {
        ++mRecoveries;
        mWorstRecoverySeconds = std::max(mWorstRecoverySeconds, since);
        mJackPhase = JackPhase::Running;
    } else if (mJackPhase == JackPhase::Restarted && since > 120.0) {
        mJackPhase = JackPhase::Running; // not back: the table says so
    }
}

void Soak::listenToMidiOutput()
{
    // The program's MIDI output port, once it is there; tried every few
    // seconds, as a server that was restarted may bring it back.
    if (mHearingOutput || mJackPhase == JackPhase::Killed || mMidi.portName().isEmpty() ||
        elapsed() < mNextOutputTry) {
        return;
    }
    mNextOutputTry = elapsed() + 5.0;
    mHearingOutput = mMidi.connectFrom(QLatin1String(PROGRAM_PORT));
    mOutputNotes.clear();
    mMidi.poll();
    mMidi.messages().clear();
}

void Soak::hearMidiOutput()
{
    if (!mHearingOutput) {
        return;
    }
    mMidi.poll();
    for (const JackMidiSender::Bytes& m : mMidi.messages()) {
        const int status = m[0] & 0xf0, channel = m[0] & 0x0f;
        if (status == 0x90 && m.size() == 3 && m[2] > 0) {
            mOutputNotes.insert({channel, m[1]});
            ++mOutputNoteOns;
        } else if ((status == 0x80 || status == 0x90) && m.size() == 3) {
            mOutputNotes.erase({channel, m[1]});
        } else if (status == 0xb0 && m.size() == 3 && m[1] == 123) { // all notes off
            for (auto it = mOutputNotes.begin(); it != mOutputNotes.end();) {
                it = it->first == channel ? mOutputNotes.erase(it) : std::next(it);
            }
        }
    }
    mMidi.messages().clear();
}

void Soak::sampleMemory()
{
    const QByteArray status =
        TestSupport::readFile(QStringLiteral("/proc/%1/status").arg(mProgram->process.processId()));
    const double mb = statusMb(status, "VmRSS");
    if (mb > 0.0) {
        mMemory.emplace_back(elapsed(), mb);
        // Every sample with its parts and the JACK restarts so far, for a look
        // at where it grew.
        QFile csv(mWork.filePath("memory.csv"));
        if (csv.open(QIODevice::Append)) {
            if (csv.size() == 0) {
                csv.write("seconds,VmRSS,RssAnon,RssFile,RssShmem,JACK restarts\n");
            }
            csv.write(QStringLiteral("%1,%2,%3,%4,%5,%6\n")
                          .arg(elapsed(), 0, 'f', 1)
                          .arg(mb, 0, 'f', 2)
                          .arg(statusMb(status, "RssAnon"), 0, 'f', 2)
                          .arg(statusMb(status, "RssFile"), 0, 'f', 2)
                          .arg(statusMb(status, "RssShmem"), 0, 'f', 2)
                          .arg(mJackRestarts)
                          .toLatin1());
        }
    }
}

EngineState Soak::probeEngine()
{
    // A recording's first line is the engine's state at its first sample.
    EngineState state;
    const QDir folder(mRecordings);
    const QStringList before = folder.entryList({"*.jsonl"}, QDir::Files);
    QString path;
    const auto started = [&] {
        for (const QString& name : QDir(mRecordings).entryList({"*.jsonl"}, QDir::Files)) {
            if (!before.contains(name)) {
                path = folder.filePath(name);
                return TestSupport::readFile(path).contains('\n');
            }
        }
        return false;
    };
    osc(OSC("/arbo/record", "i", 1));
    if (!QTest::qWaitFor(started, 10000)) {
        return state;
    }
    osc(OSC("/arbo/record", "i", 0));
    if (!QTest::qWaitFor([&] { return TestSupport::readFile(path).contains("\"end\""); }, 10000)) {
        return state;
    }
    const QByteArray header = TestSupport::readFile(path).split('\n').value(0);
    const QJsonObject top = QJsonDocument::fromJson(header).object();
    const QJsonObject engine = top.value("state").toObject();
    const QJsonArray notes = engine.value("notes").toArray();
    state.read = !engine.isEmpty();
    state.notes = notes.size();
    for (const QJsonValue& note : notes) {
        state.sounding += note.toObject().value("sounding").toBool();
    }
    state.volume = engine.value("masterVolume").toDouble(-1.0);
    state.baseFrequency = top.value("baseFrequency").toDouble(-1.0);
    return state;
}

QString Soak::terminate()
{
    // How the program ends on SIGTERM; one that hangs leaves its threads'
    // stacks behind, for whoever looks into it.
    QProcess& process = mProgram->process;
    QElapsedTimer timer;
    timer.start();
    process.terminate();
    if (process.waitForFinished(30000)) {
        return process.exitStatus() == QProcess::CrashExit
                   ? QStringLiteral("crashed after %1 ms").arg(timer.elapsed())
                   : QStringLiteral("code %1 in %2 ms")
                         .arg(process.exitCode())
                         .arg(timer.elapsed());
    }
    const QString stacks = mWork.filePath("hung-stacks.txt");
    QProcess gdb;
    gdb.setStandardOutputFile(stacks);
    gdb.start("gdb",
              {"-p", QString::number(process.processId()), "-batch", "-ex", "thread apply all bt"});
    const bool traced = gdb.waitForStarted() && gdb.waitForFinished(60000);
    process.kill();
    process.waitForFinished(10000);
    return traced ? "hung for 30 s; its stacks: " + stacks
                  : QStringLiteral("hung for 30 s (the Debian package gdb would show where)");
}

QStringList Soak::checkSavedFiles()
{
    // Each problem as one line; none: saved intact.
    QStringList problems;
    const auto document = [&](const QString& name) {
        QJsonParseError error;
        const QJsonDocument json =
            QJsonDocument::fromJson(TestSupport::readFile(mProgram->config(name)), &error);
        if (error.error != QJsonParseError::NoError || !json.isObject()) {
            problems << name + ": does not parse (" + error.errorString() + ")";
        }
        return json.object();
    };
    const QJsonObject options = document("options.json");
    const auto expect = [&](const char* key, bool ok) {
        if (!options.isEmpty() && !ok) {
            problems << QStringLiteral("options.json: \"%1\" is %2")
                            .arg(key, QString::fromUtf8(
                                          QJsonDocument(QJsonObject{{key, options.value(key)}})
                                              .toJson(QJsonDocument::Compact)));
        }
    };
    expect("masterVolume",
           std::fabs(options.value("masterVolume").toDouble() - FINAL_VOLUME) < 1e-4);
    expect("baseFrequency",
           std::fabs(options.value("baseFrequency").toDouble() - FINAL_BASE_FREQUENCY) < 1e-3);
    expect("monophonic", options.value("monophonic") == QJsonValue(false));
    expect("udpPort", options.value("udpPort").toInt() == mUdpPort);
    expect("defaultPatch", options.value("defaultPatch").toString() == FIRST_PATCH);
    const QJsonArray lists = document("scenes.json").value("lists").toArray();
    if (lists.size() != 1 || lists[0].toObject().value("scenes").toArray().size() != 4) {
        problems << "scenes.json: the cue list of four scenes is not there";
    }
    // The lattice is saved by the program; the maps are the user's and never
    // written over.
    for (const QString& name :
         {Arbo::FILE_NAME, QStringLiteral("input_map.json"), QStringLiteral("rfid_map.json")}) {
        if (document(name) != QJsonDocument::fromJson(mWritten.value(name)).object()) {
            problems << name + ": does not hold what was written";
        }
    }
    return problems;
}

bool Soak::finish()
{
    const double played = elapsed();
    // Everything held is let go, whatever the JACK server is doing.
    releaseDue(true);
    if (!mCrashed && mJackPhase != JackPhase::Running) {
        static_cast<void>(QTest::qWaitFor(
            [&] {
                mLog->poll();
                watchJack();
                return mJackPhase == JackPhase::Running;
            },
            150000));
    }
    sampleMemory();
    const double endMb = mMemory.empty() ? -1.0 : mMemory.back().second;

    EngineState engine;
    if (!mCrashed) {
        osc(OSC("/arbo/event", "if", 1, 0.0f)); // Stop all
        osc(OSC("/arbo/event", "if", 2, 0.0f));
        osc(OSC("/arbo/event", "if", 7, 0.0f));
        osc(OSC("/arbo/event", "if", 6, float(FINAL_VOLUME)));
        osc(OSC("/arbo/event", "if", 9, float(FINAL_BASE_FREQUENCY)));
        // Until the last settings have arrived and the fading voices are
        // free, for half a minute at most; what sounds then is stuck.
        QElapsedTimer waited;
        waited.start();
        do {
            engine = probeEngine();
        } while (!(engine.read && engine.notes == 0 &&
                   std::fabs(engine.volume - FINAL_VOLUME) < 1e-4 &&
                   std::fabs(engine.baseFrequency - FINAL_BASE_FREQUENCY) < 1e-3) &&
                 waited.elapsed() < 30000 && mProgram->process.state() == QProcess::Running);
        // The output's last words take a JACK cycle or two.
        static_cast<void>(QTest::qWaitFor(
            [&] {
                hearMidiOutput();
                return mOutputNotes.empty();
            },
            2000));
    }
    const bool alive = mProgram->process.state() == QProcess::Running;
    mQuitting = true;
    const QString quit = alive ? terminate() : QStringLiteral("it was not running");
    const bool quitCleanly = quit.startsWith("code 0 ");
    mLog->poll();
    mXdo.closeWriteChannel();
    stopChild(mXdo);
    const QStringList saved =
        quitCleanly ? checkSavedFiles() : QStringList{"the program did not end normally"};

    // Memory: the sample nearest the end of the warm-up, and the growth after
    // it, from end to end and as the slope of a straight line through every
    // sample since (less sensitive to where one sample falls).
    double warmMb = endMb, warmAt = played;
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    int n = 0;
    for (const auto& [at, mb] : mMemory) {
        if (at >= mWarmUp) {
            if (n == 0) {
                warmMb = mb;
                warmAt = at;
            }
            ++n;
            sx += at, sy += mb, sxx += at * at, sxy += at * mb;
        }
    }
    const double hours = (played - warmAt) / 3600.0;
    const double growth = hours > 0 ? (endMb - warmMb) / hours : 0.0;
    const double slope = n > 2 ? (n * sxy - sx * sy) / (n * sxx - sx * sx) * 3600.0 : 0.0;
    // A voice patch is tens of MB, and how much of it stays resident
    // depends on which patches were open last, so two samples compare
    // fairly only under the same patch: the samples before the changes that
    // end the same patch, one straight line each, averaged over the
    // patches.
    double samePatch = 0.0;
    int samePatchLines = 0;
    for (int phase = 0; phase < mPatchCount; ++phase) {
        double px = 0, py = 0, pxx = 0, pxy = 0;
        int pn = 0;
        for (std::size_t i = std::size_t(phase); i < mBeforeChange.size();
             i += std::size_t(mPatchCount)) {
            const auto [at, mb] = mBeforeChange[i];
            if (at >= mWarmUp) {
                ++pn;
                px += at, py += mb, pxx += at * at, pxy += at * mb;
            }
        }
        if (pn > 2) {
            samePatch += (pn * pxy - px * py) / (pn * pxx - px * px) * 3600.0;
            ++samePatchLines;
        }
    }
    const bool samePatchRead = samePatchLines > 0;
    samePatch = samePatchRead ? samePatch / samePatchLines : 0.0;
    const double logMb = mLog->bytesWritten() / 1048576.0;

    bool allMet = true;
    std::printf("\nSoak of %.1f min, %d bursts, %d JACK restarts:\n", played / 60.0, mBursts,
                mJackRestarts);
    QStringList events;
    for (const auto& sent : mSent) {
        events << QStringLiteral("%1 %2").arg(sent.second).arg(sent.first);
    }
    std::printf("  sent: %s\n\n", qPrintable(events.join(", ")));
    std::printf("  %-44s %-34s %-12s %s\n", "measure", "value", "goal", "");
    const auto row = [&](const char* measure, const QString& value, const char* goal, bool met) {
        allMet = allMet && met;
        std::printf("  %-44s %-34s %-12s %s\n", measure, qPrintable(value), goal,
                    met ? "ok" : "FAILED");
    };
    const auto info = [](const char* measure, const QString& value) {
        std::printf("  %-44s %s\n", measure, qPrintable(value));
    };
    row("crashes", mCrashed ? "1: " + mCrash : QStringLiteral("0 (alive at the end)"), "0",
        !mCrashed);
    row("exit after SIGTERM", quit, "code 0", quitCleanly);
    row("stuck notes after Stop all (engine)",
        engine.read ? QString::number(engine.sounding) : "not read", "0",
        engine.read && engine.sounding == 0);
    row("voices in use at the end", engine.read ? QString::number(engine.notes) : "not read", "0",
        engine.read && engine.notes == 0);
    if (mHearingOutput) {
        row("stuck notes on the MIDI output",
            QStringLiteral("%1 (of %2 notes heard)").arg(mOutputNotes.size()).arg(mOutputNoteOns),
            "0", mOutputNotes.empty());
    } else {
        info("stuck notes on the MIDI output",
             "not heard: the program offers no MIDI output port now");
    }
    row("resident memory at start / warm-up / end",
        QStringLiteral("%1 / %2 / %3 MB")
            .arg(mMemory.empty() ? -1.0 : mMemory.front().second, 0, 'f', 1)
            .arg(warmMb, 0, 'f', 1)
            .arg(endMb, 0, 'f', 1),
        "", true);
    if (samePatchRead) {
        row("memory growth after warm-up, same patch",
            QStringLiteral("%1 MB/hour (%2 lines)").arg(samePatch, 0, 'f', 2).arg(samePatchLines),
            "<= 5 MB/h", samePatch <= MEMORY_GOAL_MB_PER_HOUR);
    } else {
        // Each patch must have ended three times after the warm-up: about
        // half an hour with four patches.
        info("memory growth after warm-up, same patch",
             "not read: a run this short has too few patch changes after the warm-up");
    }
    info("memory growth after warm-up, every sample",
         QStringLiteral("%1 MB/hour end to end, %2 MB/hour fitted")
             .arg(growth, 0, 'f', 2)
             .arg(slope, 0, 'f', 2));
    info("log written (log.txt, turned over at 10 MB)",
         QStringLiteral("%1 MB, %2 MB/hour, %3 critical")
             .arg(logMb, 0, 'f', 2)
             .arg(logMb * 3600.0 / std::max(1.0, played), 0, 'f', 2)
             .arg(mLog->criticals));
    info("audio streams / callbacks",
         QStringLiteral("%1 / %2").arg(mLog->streams).arg(mLog->callbacks));
    info("xruns / overruns", QStringLiteral("%1 / %2").arg(mLog->xruns).arg(mLog->overruns));
    info("worst callback / worst 99th percentile", QStringLiteral("%1 ms / %2 ms (period %3 ms)")
                                                       .arg(mLog->worstMs, 0, 'f', 2)
                                                       .arg(mLog->worstP99Ms, 0, 'f', 2)
                                                       .arg(mLog->periodMs, 0, 'f', 2));
    row("device back after JACK restarts",
        QStringLiteral("%1 of %2, slowest %3 s")
            .arg(mRecoveries)
            .arg(mJackRestarts)
            .arg(mWorstRecoverySeconds, 0, 'f', 1),
        "all", mRecoveries == mJackRestarts);
    info("voice patches loaded", QString::number(mLog->patchLoads));
    row("options, lattice and maps saved intact", saved.isEmpty() ? "yes" : saved.join("; "), "yes",
        saved.isEmpty());
    std::printf("\n%s\n", allMet ? "Every goal met." : "Some goals were NOT met.");
    if (!allMet) {
        // For whoever looks into it: the program's folder and our logs stay.
        mWork.setAutoRemove(false);
        mProgram->home.setAutoRemove(false);
        std::printf("Kept: the program's home %s, the stage's logs %s\n",
                    qPrintable(mProgram->home.path()), qPrintable(mWork.path()));
    }
    stopChild(mXvfb);
    return allMet;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Plays the real program for a long time and reports what it is left with.");
    parser.addHelpOption();
    parser.addOption({"minutes", "How long to play (default 10).", "N", "10"});
    parser.addOption({"seed", "Seed of the random choices (default: from the clock).", "S"});
    parser.addOption({"jack-restart-minutes",
                      "Minutes between JACK restarts, the first after half "
                      "of them (default 10).",
                      "N", "10"});
    parser.process(app);
    bool ok = false;
    const double minutes = parser.value("minutes").toDouble(&ok);
    bool restartOk = false;
    const double restartMinutes = parser.value("jack-restart-minutes").toDouble(&restartOk);
    if (!ok || minutes <= 0.0 || !restartOk || restartMinutes <= 0.0) {
        std::fprintf(stderr,
                     "bench_soak: --minutes and --jack-restart-minutes take a positive number\n");
        return 2;
    }
    const quint32 seed = parser.isSet("seed") ? parser.value("seed").toUInt()
                                              : quint32(QDateTime::currentMSecsSinceEpoch());
    std::printf("bench_soak --minutes %g --jack-restart-minutes %g --seed %u\n", minutes,
                restartMinutes, seed);
    std::fflush(stdout);

    Soak soak(minutes, restartMinutes, seed);
    QString error;
    if (!soak.setUp(error)) {
        std::fprintf(stderr, "bench_soak: %s\n", qPrintable(error));
        return 1;
    }
    soak.run();
    return soak.finish() ? 0 : 1;
}
