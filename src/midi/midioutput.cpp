#include "midi/midioutput.h"

#include "midi/jackserverwatch.h"
#include "midi/midisettings.h"
#include "midi/mpeencoder.h"
#include "midi/mtsencoder.h"
#include "sound/pdplayer.h"

#include <rtmidi/RtMidi.h>

#include <QDebug>
#include <QElapsedTimer>
#include <QThread>

#include <jack/jack.h>

#include <pthread.h>
#include <sched.h>

const char* const MidiOutput::PORT_NAME = "Merrow Tuning Arbo";

namespace {

// How long the MIDI thread sleeps when no note comes, before it looks whether
// it should stop.
constexpr int IDLE_WAIT_MS = 100;
// How often, at most, the set-up messages are sent again before a note that
// starts from silence.
constexpr std::int64_t SETUP_REFRESH_NS = 2000000000;

// The index of the port named `name` among `out`'s ports (the last one, should
// two share the name), or -1.
int portIndex(RtMidiOut& out, const QString& name)
{
    int index = -1;
    const unsigned count = out.getPortCount();
    for (unsigned i = 0; i < count; ++i) {
        if (QString::fromStdString(out.getPortName(i)) == name) {
            index = int(i);
        }
    }
    return index;
}

} // namespace

MidiOutput::MidiOutput(QObject* parent) : QObject(parent)
{
    mStatus = tr("MIDI output is off");
    mPortCheck.setInterval(PORT_CHECK_INTERVAL_MS);
    connect(&mPortCheck, &QTimer::timeout, this, &MidiOutput::onCheckPort);
}

MidiOutput::~MidiOutput()
{
    close();
}

void MidiOutput::attach(PdPlayer* player)
{
    mPlayer = player;
}

QStringList MidiOutput::portNames(Api api)
{
    std::string error;
    RtMidiErrorSink errors; // outlives the probe, which reports to it
    bool jack = false;
    const std::unique_ptr<RtMidiOut> probe = RtMidiErrorSink::openFirst<RtMidiOut>(
        api != Api::Alsa, api != Api::Jack, PORT_NAME, errors, error, jack);
    QStringList names;
    if (!probe) {
        return names;
    }
    const unsigned count = probe->getPortCount();
    for (unsigned i = 0; i < count; ++i) {
        const QString name = QString::fromStdString(probe->getPortName(i));
        // Our own virtual port is no place to send to.
        if (!name.startsWith(QLatin1String(PORT_NAME) + QLatin1Char(':'))) {
            names << name;
        }
    }
    return names;
}

bool MidiOutput::open(const MidiSettings& settings, Api api)
{
    close();
    if (!mOpened) {
        mOpened = std::make_unique<MidiSettings>();
    }
    mOpened->copyValues(settings);
    if (!settings.mEnabled) {
        setStatus(tr("MIDI output is off"));
        return false;
    }
    std::string error;
    bool jack = false;
    std::unique_ptr<RtMidiOut> out = RtMidiErrorSink::openFirst<RtMidiOut>(
        api != Api::Alsa, api != Api::Jack, PORT_NAME, mErrors, error, jack);
    const Api used = jack ? Api::Jack : Api::Alsa;
    if (!out) {
        warn(tr("No MIDI system (%1): MIDI output is off")
                 .arg(QString::fromStdString(error).trimmed()));
        return false;
    }
    QString where;
    if (!openPort(*out, settings.mPort, used, where)) {
        return false;
    }
    start(std::move(out), settings, used);
    setStatus(tr("%1 on the %2").arg(settings.mMethod, where));
    qInfo().noquote() << "MIDI output:" << mStatus;
    return true;
}

bool MidiOutput::openPort(RtMidiOut& out, const QString& port, Api used, QString& where,
                          bool quiet)
{
    const QString system = used == Api::Jack ? QStringLiteral("JACK") : QStringLiteral("ALSA");
    if (port.isEmpty()) {
        out.openVirtualPort(PORT_NAME);
        where = tr("virtual port \"%1\" (%2)").arg(QLatin1String(PORT_NAME), system);
    } else {
        const int index = portIndex(out, port);
        if (index < 0) {
            if (!quiet) {
                warn(tr("MIDI port \"%1\" not found: MIDI output is off").arg(port));
            }
            return false;
        }
        out.openPort(unsigned(index), PORT_NAME);
        where = tr("port \"%1\" (%2)").arg(port, system);
    }
    std::string openError;
    // RtMidi counts only a connection to another port as "open"; a virtual
    // port is judged by its errors alone.
    const bool failed = mErrors.take(openError);
    if (failed || (!port.isEmpty() && !out.isPortOpen())) {
        if (quiet) {
            return false;
        }
        warn(tr("Could not open the MIDI %1 (%2): MIDI output is off")
                 .arg(where, QString::fromStdString(openError).trimmed()));
        return false;
    }
    return true;
}

void MidiOutput::start(std::unique_ptr<RtMidiOut> out, const MidiSettings& settings, Api used)
{
    if (settings.mMethod == MidiSettings::METHOD_MTS) {
        mEncoder = std::make_unique<MtsEncoder>();
    } else {
        mEncoder = std::make_unique<MpeEncoder>(settings.mBendRange, settings.mMemberChannels);
    }
    mOut = std::move(out);
    // Tells close() whether the server has gone under the port.
    QString watchError;
    mWatch.reset();
    if (used == Api::Jack) {
        mWatch = std::make_unique<JackServerWatch>();
        if (!mWatch->open(QLatin1String(PORT_NAME) + QStringLiteral(" (watch)"), watchError)) {
            mWatch.reset();
        }
    }
    mApi = used;
    mPort = settings.mPort;
    mPortLost = false;
    // Notes queued while no output was open belong to nobody. The set-up
    // messages go out before the first note (see run()).
    mRing.clear();
    mStop.store(false);
    mThread = std::thread([this] { run(); });
    if (mPlayer) {
        mPlayer->setNoteTap(&mRing);
        mPlayer->setBuiltInSound(settings.mBuiltInSound);
    }
    mPortCheck.start();
}

void MidiOutput::close()
{
    mPortCheck.stop();
    mServerLost = false;
    if (mPlayer) {
        // With no MIDI going out, the built-in sound always plays.
        mPlayer->setNoteTap(nullptr);
        mPlayer->setBuiltInSound(true);
    }
    if (mThread.joinable()) {
        mStop.store(true);
        mThread.join();
    }
    mEncoder.reset();
    waitForLastWords();
    if (mWatch && mWatch->gone()) {
        // Deliberately never freed: its destructor would call into a client
        // of the server that has gone (see JackServerWatch).
        static_cast<void>(mOut.release());
    }
    mOut.reset();
    mWatch.reset();
    if (mStatus != tr("MIDI output is off")) {
        setStatus(tr("MIDI output is off"));
    }
}

void MidiOutput::waitForLastWords()
{
    // RtMidi's JACK port hands the bytes over in the next process cycle; a
    // port closed before that cycle has run loses them, and with them the
    // all-notes-off that silences the synthesizer. Two cycle starts after
    // now, one whole cycle has run. Bounded: a stalled server must not
    // hold up the window.
    jack_client_t* client = mWatch && !mWatch->gone() ? mWatch->client() : nullptr;
    if (!client || !mOut) {
        return;
    }
    const jack_nframes_t start = jack_last_frame_time(client);
    const jack_nframes_t twoCycles = 2 * jack_get_buffer_size(client);
    QElapsedTimer waited;
    waited.start();
    while (jack_nframes_t(jack_last_frame_time(client) - start) < twoCycles &&
           waited.elapsed() < LAST_WORDS_TIMEOUT_MS && !mWatch->gone()) {
        QThread::msleep(1);
    }
}

void MidiOutput::setStatus(const QString& status)
{
    mStatus = status;
    emit statusChanged(mStatus);
}

void MidiOutput::warn(const QString& text)
{
    qWarning().noquote() << text;
    setStatus(text);
}

void MidiOutput::loseServer()
{
    // The MIDI thread sends nothing to a server that has gone (see send()),
    // so it ends at its next look at the stop flag; close() abandons the
    // port instead of closing it.
    close();
    mServerLost = true;
    warn(tr("The JACK server has gone: MIDI output is off until it is back"));
    mPortCheck.start();
}

void MidiOutput::reopenAfterServerLoss()
{
    // JACK only: the server comes back under the same name, and the notes
    // should go where they went before, not to the ALSA sequencer.
    std::string error;
    bool jack = false;
    std::unique_ptr<RtMidiOut> out =
        RtMidiErrorSink::openFirst<RtMidiOut>(true, false, PORT_NAME, mErrors, error, jack);
    QString where;
    if (!out || !openPort(*out, mOpened->mPort, Api::Jack, where, true)) {
        mErrors.take(error); // said once already, when the server went
        return;
    }
    start(std::move(out), *mOpened, Api::Jack);
    mServerLost = false;
    setStatus(tr("%1 on the %2").arg(mOpened->mMethod, where));
    qInfo().noquote() << "MIDI output is back:" << mStatus;
}

void MidiOutput::onCheckPort()
{
    if (mServerLost) {
        reopenAfterServerLoss(); // quietly, once a second, until the server is back
        return;
    }
    if (!mOut) {
        return;
    }
    if (mWatch && mWatch->gone()) {
        loseServer();
        return;
    }
    // The MIDI thread never logs; what RtMidi said to it is reported here.
    std::string error;
    if (mErrors.take(error)) {
        qWarning().noquote() << "MIDI output:" << QString::fromStdString(error).trimmed();
    }
    if (const std::uint32_t dropped = mRing.takeDropped()) {
        qWarning() << "MIDI output: dropped" << dropped << "note event(s), the queue was full";
    }
    if (mPort.isEmpty()) {
        return;
    }
    const QStringList names = portNames(mApi);
    const bool present = names.contains(mPort);
    if (!present && !mPortLost) {
        mPortLost = true;
        warn(tr("MIDI port \"%1\" has gone: notes are not heard").arg(mPort));
    } else if (present && mPortLost) {
        // The port is back, but our connection to it went with it.
        mPortLost = false;
        warn(tr("MIDI port \"%1\" is back: choose it again to reconnect").arg(mPort));
    }
}

void MidiOutput::send(const MidiEncoder::Messages& messages)
{
    // RtMidi's JACK port waits for room in its buffer, spinning, and only the
    // server's process cycle makes room: once the server has gone, a send
    // would spin for good, burning a core, and close() would wait for this
    // thread for ever, so that a shutdown after a restarted sound server
    // hangs before the options are saved. What is sent then has nowhere to
    // go anyway. (A server that stalls with the buffer full and then dies
    // can still catch a send inside RtMidi; this check cannot reach there.)
    if (mWatch && mWatch->gone()) {
        return;
    }
    for (const auto& message : messages) {
        mOut->sendMessage(message.data(), message.size());
    }
}

void MidiOutput::run()
{
    // A note should leave within a fraction of a millisecond even on a busy
    // machine: real-time scheduling when the system allows it (below the
    // audio thread's priority), otherwise the ordinary kind.
    sched_param param{};
    param.sched_priority = MIDI_THREAD_PRIORITY;
    mRealtime.store(pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0);

    MidiEncoder::Messages messages;
    messages.reserve(64);
    MidiNoteRing::Note note;
    std::int64_t lastSetupNs = -1; // never yet
    while (!mStop.load(std::memory_order_relaxed)) {
        mRing.wait(IDLE_WAIT_MS);
        while (mRing.pop(note)) {
            messages.clear();
            bool started = false;
            switch (note.type) {
            case MidiNoteRing::NoteOn:
                // Before the first note of a phrase the receiver is set up
                // again: a virtual port has no say in who connects when, and
                // a synthesizer connected after the output opened would
                // otherwise never learn the zone or the bend range. At most
                // every SETUP_REFRESH_NS, since the set-up is a hundred
                // messages, which a hardware port takes a while to carry.
                if (mEncoder->soundingCount() == 0 &&
                    (lastSetupNs < 0 || note.stampNs - lastSetupNs >= SETUP_REFRESH_NS)) {
                    mEncoder->setup(messages);
                    lastSetupNs = note.stampNs;
                }
                started = mEncoder->noteOn(note.voice, note.frequency, messages);
                break;
            case MidiNoteRing::NoteOff:
                mEncoder->noteOff(note.voice, messages);
                break;
            case MidiNoteRing::AllNotesOff:
                mEncoder->allNotesOff(messages);
                break;
            default:
                break;
            }
            send(messages);
            if (started) {
                mLastLatencyNs.store(MidiNoteRing::nowNs() - note.stampNs,
                                     std::memory_order_relaxed);
                mNotesSent.fetch_add(1, std::memory_order_release);
            }
        }
    }
    // Nothing is left hanging on the receiver when the output closes.
    messages.clear();
    mEncoder->allNotesOff(messages);
    send(messages);
}
