#include "midi/midiinput.h"

#include "midi/midiportconnector.h"
#include "sound/pdplayer.h"

#include <rtmidi/RtMidi.h>

#include <QDebug>

namespace {

QString describe(std::uint32_t packed)
{
    const int status = int(packed & 0xff);
    const int data = int((packed >> 8) & 0xff);
    const int channel = (status & 0x0f) + 1;
    switch (status & 0xf0) {
    case MidiInParser::NoteOn:
    case MidiInParser::NoteOff:
        return QStringLiteral("note %1 on channel %2").arg(data).arg(channel);
    case MidiInParser::ControlChange:
        return QStringLiteral("controller %1 on channel %2").arg(data).arg(channel);
    case MidiInParser::ProgramChange:
        return QStringLiteral("program change on channel %1").arg(channel);
    case MidiInParser::PitchBend:
        return QStringLiteral("pitch bend on channel %1").arg(channel);
    default:
        return QStringLiteral("aftertouch on channel %1").arg(channel);
    }
}

} // namespace

MidiInput::MidiInput(QObject* parent) : QObject(parent)
{
    mStatus = tr("MIDI input is off");
    mTimer.setInterval(REPORT_INTERVAL_MS);
    connect(&mTimer, &QTimer::timeout, this, &MidiInput::checkInput);
}

MidiInput::~MidiInput()
{
    close();
}

void MidiInput::attach(PdPlayer* player)
{
    mPlayer = player;
}

bool MidiInput::open(const InputMap::Bindings& bindings, Api api)
{
    close();
    setBindings(bindings);
    mWanted = bindings.midiPorts;
    mApi = api;
    return start(false);
}

void MidiInput::setBindings(const InputMap::Bindings& bindings)
{
    mTables.set(bindings, [this](const ArboEvent* release) {
        if (release && mPlayer) {
            mPlayer->queueEventGui(release);
        }
    });
}

bool MidiInput::start(bool again)
{
    bool jack = false;
    std::unique_ptr<RtMidiIn> in = openPort(again, jack);
    if (!in) {
        return false;
    }
    mIn = std::move(in);
    mReceived.store(0);
    mQueued.store(0);
    mSystemLost = false;
    mIgnoredPending = 0;
    mIgnoredLogged.invalidate();

    openConnector(jack);
    connectWantedPorts();
    updateStatus();
    qInfo().noquote() << (again ? "MIDI input is back:" : "MIDI input:") << mStatus;
    mTimer.start();
    return true;
}

std::unique_ptr<RtMidiIn> MidiInput::openPort(bool again, bool& jack)
{
    // Once a JACK server has gone, only JACK again: the audio comes back on
    // the server of the same name, and the connections are JACK's.
    std::string error;
    std::unique_ptr<RtMidiIn> in = RtMidiErrorSink::openFirst<RtMidiIn>(
        again || mApi != Api::Alsa, !again && mApi != Api::Jack, MidiOutput::PORT_NAME, mErrors,
        error, jack);
    if (!in) {
        if (!again) {
            warn(tr("No MIDI system (%1): MIDI input is off")
                     .arg(QString::fromStdString(error).trimmed()));
        }
        return nullptr;
    }
    mSystem = jack ? QStringLiteral("JACK") : QStringLiteral("ALSA");
    // RtMidi leaves SysEx, clock and active sensing out before the bytes
    // reach the parser. Kept in, a SysEx that never ends would grow RtMidi's
    // message buffer on the MIDI thread without bound.
    in->ignoreTypes(true, true, true);
    // From here on, RtMidi's thread is the only one that feeds the parser.
    mParser.reset();
    in->setCallback(&MidiInput::onRtMidiMessage, this);
    in->openVirtualPort(MidiOutput::PORT_NAME);
    std::string openError;
    if (mErrors.take(openError)) {
        if (!again) {
            warn(tr("Could not open the MIDI input port \"%1\" (%2, %3): MIDI input is off")
                     .arg(QLatin1String(MidiOutput::PORT_NAME), mSystem,
                          QString::fromStdString(openError).trimmed()));
        }
        return nullptr;
    }
    return in;
}

void MidiInput::openConnector(bool jack)
{
    // A client of its own makes the connections and, on JACK, watches the
    // server. Without one the port still works for whoever connects to it.
    QString connectorError;
    mConnector = MidiPortConnector::make(
        jack, QLatin1String(MidiOutput::PORT_NAME) + QStringLiteral(" (connections)"),
        connectorError);
    if (mConnector && !mConnector->findOwnInput(QLatin1String(MidiOutput::PORT_NAME),
                                                QLatin1String(MidiOutput::PORT_NAME))) {
        connectorError = tr("the input port is not listed");
    }
    mOwnPort = mConnector ? mConnector->ownInput() : QString();
    if (mOwnPort.isEmpty() && !mWanted.isEmpty()) {
        qWarning().noquote()
            << tr("MIDI input: cannot connect the ports of \"midiPorts\" (%1)").arg(connectorError);
    }
}

void MidiInput::abandonLostSystem()
{
    // Deliberately never freed: its destructor would call into a client of
    // the server that has gone (see JackServerWatch). Its JACK thread ended
    // with the server, so the ring keeps one producer when a new port opens.
    // The watch itself knows not to close its client.
    static_cast<void>(mIn.release());
    mConnector.reset();
    mConnected.clear();
    mFailed.clear();
    mOwnPort.clear();
}

void MidiInput::close()
{
    mTimer.stop();
    if (mConnector && mConnector->systemGone()) {
        abandonLostSystem(); // no callback comes from a server that has gone
    }
    // RtMidi stops its thread (or deactivates its JACK client) before this
    // returns: after it, no callback runs.
    mIn.reset();
    mConnector.reset();
    mSystemLost = false;
    reportCounts();
    mConnected.clear();
    mFailed.clear();
    mWaitingReported.clear();
    mOwnPort.clear();
    if (mStatus != tr("MIDI input is off")) {
        setStatus(tr("MIDI input is off"));
    }
}

QStringList MidiInput::connectedPorts() const
{
    return mConnected;
}

void MidiInput::onRtMidiMessage(double, std::vector<unsigned char>* message, void* self)
{
    // JACK's real-time thread, or RtMidi's ALSA thread.
    static_cast<MidiInput*>(self)->feed(message->data(), message->size());
}

void MidiInput::feed(const std::uint8_t* bytes, std::size_t size)
{
    MidiInParser::Message message;
    const MidiInputTables::Table& table = mTables.enter();
    for (std::size_t i = 0; i < size; ++i) {
        if (mParser.feed(bytes[i], message)) {
            mReceived.fetch_add(1, std::memory_order_release);
            dispatch(message, table);
        }
    }
    mTables.leave();
    if (const std::uint32_t malformed = mParser.takeMalformed()) {
        mMalformed.fetch_add(malformed, std::memory_order_relaxed);
    }
}

void MidiInput::queue(const ArboEvent* event)
{
    if (event && mPlayer) {
        mPlayer->queueEventMidi(event);
        mQueued.fetch_add(1, std::memory_order_release);
    }
}

void MidiInput::ignore(const MidiInParser::Message& message)
{
    mIgnored.fetch_add(1, std::memory_order_relaxed);
    mLastIgnored.store(std::uint32_t(message.type | message.channel) | std::uint32_t(message.data1)
                                                                           << 8,
                       std::memory_order_relaxed);
}

void MidiInput::dispatch(const MidiInParser::Message& message, const MidiInputTables::Table& table)
{
    switch (message.type) {
    case MidiInParser::NoteOn: {
        const InputBinding& binding = table.notes[message.data1];
        if (!binding.isBound()) {
            ignore(message);
            break;
        }
        if (!table.latch && binding.isNote()) {
            mTables.pressed(message.data1);
        }
        if (table.velocity && binding.isNote()) {
            // On the stack: the ring copies it.
            const ArboEvent volume(ArboEvent::VoiceVolume, float(message.data2) / 127.0f);
            queue(&volume);
        }
        queue(binding.press(table.latch));
        break;
    }
    case MidiInParser::NoteOff: {
        const InputBinding& binding = table.notes[message.data1];
        if (!binding.isBound()) {
            ignore(message);
        }
        mTables.released(message.data1);
        // Nothing for a latched note or a fixed event: they act on the press.
        queue(binding.release(table.latch));
        break;
    }
    case MidiInParser::ProgramChange:
        if (mSceneProgramChange.load(std::memory_order_relaxed)) {
            const ArboEvent recall(ArboEvent::SceneRecall, float(message.data1) + 1.0f);
            queue(&recall);
        } else {
            ignore(message);
        }
        break;
    case MidiInParser::ControlChange: {
        const int direction = message.data1 == mSceneNext.load(std::memory_order_relaxed) ? 1
                              : message.data1 == mScenePrevious.load(std::memory_order_relaxed)
                                  ? -1
                                  : 0;
        if (direction != 0) {
            bool& down = mSceneSwitchDown[message.channel & 0x0f][direction > 0 ? 0 : 1];
            const bool wasDown = down;
            down = message.data2 >= 64;
            if (down && !wasDown) {
                const ArboEvent step(ArboEvent::SceneStep, float(direction));
                queue(&step);
            }
            break;
        }
        const InputBinding& binding = table.controllers[message.data1];
        if (!binding.isBound()) {
            ignore(message);
            break;
        }
        queue(binding.control(float(message.data2) / 127.0f, table.latch, mScratch));
        break;
    }
    default:
        ignore(message);
        break;
    }
}

void MidiInput::setSceneTriggers(int next, int previous, bool programChange)
{
    mSceneNext.store(next >= 0 && next < 128 ? next : -1, std::memory_order_relaxed);
    mScenePrevious.store(previous >= 0 && previous < 128 ? previous : -1,
                         std::memory_order_relaxed);
    mSceneProgramChange.store(programChange, std::memory_order_relaxed);
}

void MidiInput::checkInput()
{
    reportCounts();
    std::string error;
    if (mErrors.take(error)) {
        qWarning().noquote() << "MIDI input:" << QString::fromStdString(error).trimmed();
    }
    if (mSystemLost) {
        start(true); // quietly, once a second, until the server is back
        return;
    }
    if (!mConnector) {
        return;
    }
    if (mConnector->systemGone()) {
        abandonLostSystem();
        mSystemLost = true;
        warn(tr("The %1 server has gone: MIDI input is off until it is back").arg(mSystem));
        return;
    }
    const QStringList before = mConnected;
    connectWantedPorts();
    if (mConnected != before) {
        updateStatus();
    }
}

void MidiInput::connectWantedPorts()
{
    if (!mConnector || mOwnPort.isEmpty() || mWanted.isEmpty()) {
        return;
    }
    QStringList present;
    QSet<QString> matchedTexts;
    for (const MidiPortConnector::Port& port : mConnector->sources()) {
        const QString text = port.own ? QString() : port.firstMatch(mWanted);
        if (text.isEmpty()) {
            continue;
        }
        matchedTexts.insert(text);
        present << port.name;
        // Tried once per appearance: a connection the user takes away by
        // hand stays away until the port comes again.
        if (mConnected.contains(port.name) || mFailed.contains(port.name)) {
            continue;
        }
        QString error;
        if (mConnector->connectToOwn(port, error)) {
            mConnected << port.name;
            qInfo().noquote()
                << tr("MIDI input: connected \"%1\" (for \"%2\")").arg(port.name, text);
        } else {
            mFailed.insert(port.name);
            qWarning().noquote()
                << tr("MIDI input: could not connect \"%1\": %2").arg(port.name, error);
        }
    }
    forgetGonePorts(present);
    reportUnmatchedTexts(matchedTexts);
}

void MidiInput::forgetGonePorts(const QStringList& present)
{
    // Ports that went away are connected again when they come back.
    for (int i = mConnected.size() - 1; i >= 0; --i) {
        if (!present.contains(mConnected[i])) {
            qInfo().noquote() << tr("MIDI input: \"%1\" has gone").arg(mConnected[i]);
            mConnected.removeAt(i);
        }
    }
    for (auto it = mFailed.begin(); it != mFailed.end();) {
        it = present.contains(*it) ? std::next(it) : mFailed.erase(it);
    }
}

void MidiInput::reportUnmatchedTexts(const QSet<QString>& matchedTexts)
{
    for (const QString& wanted : mWanted) {
        if (!matchedTexts.contains(wanted) && !mWaitingReported.contains(wanted)) {
            mWaitingReported.insert(wanted);
            qWarning().noquote() << tr("MIDI input: no port matches \"%1\" of \"midiPorts\" yet; "
                                       "it is connected when it appears")
                                        .arg(wanted);
        } else if (matchedTexts.contains(wanted)) {
            mWaitingReported.remove(wanted);
        }
    }
}

void MidiInput::reportCounts()
{
    if (const std::uint32_t count = mMalformed.exchange(0)) {
        qWarning().noquote()
            << tr("MIDI input: ignored %1 malformed byte(s) or message(s)").arg(count);
    }
    mIgnoredPending += mIgnored.exchange(0);
    if (mIgnoredPending != 0 &&
        (!mIgnoredLogged.isValid() || mIgnoredLogged.elapsed() >= IGNORED_REPORT_INTERVAL_MS)) {
        qInfo().noquote() << tr("MIDI input: ignored %1 message(s) that the input map binds to "
                                "nothing or that play nothing (last: %2)")
                                 .arg(mIgnoredPending)
                                 .arg(describe(mLastIgnored.load()));
        mIgnoredPending = 0;
        mIgnoredLogged.start();
    }
}

void MidiInput::updateStatus()
{
    QString text =
        tr("Virtual port \"%1\" (%2)").arg(QLatin1String(MidiOutput::PORT_NAME), mSystem);
    if (!mConnected.isEmpty()) {
        text += tr(", connected to %1").arg(mConnected.join(QStringLiteral(", ")));
    }
    setStatus(text);
}

void MidiInput::setStatus(const QString& status)
{
    mStatus = status;
    emit statusChanged(mStatus);
}

void MidiInput::warn(const QString& text)
{
    qWarning().noquote() << text;
    setStatus(text);
}
