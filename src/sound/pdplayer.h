#pragma once

#include "model/arboratio.h"
#include "sound/commanddispatcher.h"
#include "sound/patchchanger.h"
#include "sound/patchmixer.h"
#include "sound/playercontrols.h"
#include "sound/playerresult.h"
#include "sound/playerresultqueue.h"
#include "sound/playerstate.h"
#include "sound/scenerecaller.h"
#include "sound/spscqueue.h"
#include "sound/staticarray.h"
#include "sound/voicepool.h"

#include <QList>
#include <QObject>
#include <QStringList>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

class ArboEvent;
class MidiNoteRing;
class PdInstance;
class QFileInfo;
class RecordTap;
struct _atom;

// The sound engine: the open patch in a Pure Data instance (libpd; another
// instance of a small pool takes over at a patch change), 128 voices, the
// transposition, volumes, base frequency, monophonic switch and the per-prime
// enable flags.
//
// Every change that can affect sound arrives as a command (an ArboEvent)
// queued into the lock-free command buffer of the thread that sends it, one
// per producing thread: queueEventGui from the GUI thread, queueEventSerial
// from the UDP listener thread, queueEventMidi and queueEventOsc from the
// MIDI and OSC input threads. The audio callback drains them at the start
// of each buffer (processEvents) and carries the commands out, so every libpd
// call on a running patch is made from that one thread. Results come back
// through a fixed queue that the GUI thread turns into the signals below
// (deliverResults()): they are emitted on the GUI thread.
//
// The player is the face of the parts it owns: the command buffers and the
// carrying out of commands (CommandDispatcher), the settings they change
// (PlayerControls), the voices and the note table (VoicePool), the patch
// change (PatchChanger), the instances that sound and every message to them
// (PatchMixer), and the results on their way to the GUI thread
// (PlayerResultQueue).
//
// The patch contract: voice and macro messages go to the receiver "arbo-in"
// as lists (value, PatchMixer::VoiceMessage, voice number 1..128, 0 for the
// whole patch), the master volume to "master-vol", "dsp 1"/"dsp 0" to "pd",
// and a bang to "query-macros" after opening. The patch reports "voice-stop"
// with the 1-based voice number when a released voice has fallen silent, and
// answers the query on "output-voice-info" with the macro names text.
class PdPlayer : public QObject
{
    Q_OBJECT
public:
    // One voice of the pool.
    using NoteOn = VoicePool::NoteOn;

    static constexpr int VOICE_COUNT = VoicePool::VOICE_COUNT;
    static constexpr int PRIME_FLAG_COUNT = PlayerControls::PRIME_FLAG_COUNT;

    explicit PdPlayer(QObject* parent = nullptr);
    ~PdPlayer() override;

    // GUI thread, at start-up. Allocates the command buffers, installs
    // libpd's hooks and starts libpd. False when a buffer cannot be made.
    bool init();
    // GUI thread, while no audio stream runs (the audio output calls it when
    // it opens a device). Returns libpd_init_audio's result.
    int initAudio(int outChannels, int sampleRate);
    // GUI thread, at shutdown: closes the patch.
    void term();

    // GUI thread. Opens `file` in a spare Pd instance, here, while the
    // audio thread plays on, and hands it over: the audio thread starts the
    // notes held at that moment in it and crossfades to it within
    // CROSSFADE_SECONDS; the old patch is closed afterwards, off the audio
    // thread. Macros carry over to the new patch where it has a macro of the
    // same name; the others take its defaults. Returns false when libpd
    // could not open it (or could not switch its DSP on): the old patch then
    // plays on, and no patchLoaded is emitted. Without a running audio
    // thread the change is carried out at once, without a crossfade.
    bool loadPatch(const QFileInfo& file);
    // GUI thread. The open patch (if any) fades out and every note ends.
    void unloadPatch();

    // How many commands one buffer of `frames` carries out at most: one per
    // two frames. A note toggle costs Pd some 4 to 10 us under a full chord
    // (a stolen voice's end included), so a flood takes at most about a
    // quarter of any buffer's period, and 1023 commands about 46 ms.
    static int commandBudget(int frames) { return std::max(16, frames / 2); }
    // How many held notes one buffer starts in the patch that a change
    // brings, before it is heard: one per eight frames (about 20 us each in
    // a patch not yet in the caches), so that a change under 128 notes
    // takes some 25 to 50 ms more at any buffer size.
    static int noteStartBudget(int frames) { return std::max(4, frames / 8); }

    // Audio thread: carries out at most `budget` commands of the four
    // command buffers, in order within each (see CommandDispatcher for how
    // they share), and leaves the rest for the next call. Never blocks,
    // allocates, locks, logs or emits: results go to a fixed queue that the
    // GUI thread turns into signals (deliverResults()). Each message to a
    // patch makes its instance the calling thread's current one (libpd keeps
    // it per thread), as every call of a PdInstance does.
    void processEvents(int budget = commandBudget(256));
    // GUI thread only, through the GUI command buffer: a command as a
    // performance log recorded it, byte for byte, for the offline render.
    // False when the buffer is full.
    bool replayCommand(const PdMessageBuffer::Chunk& command)
    {
        return mCommands.queue(CommandDispatcher::FromWindow, command);
    }
    // Whether the commands are a log's, replayed: then every buffer carries
    // out all that is queued, as the buffer that logged them did (a scene
    // recall logs more commands than its share of the budget). The thread
    // that renders.
    void setReplaying(bool replaying) { mReplaying = replaying; }

    // The one place where sound is made, shared by the stream callback, the
    // tests and the benchmarks. Carries out the queued commands (within the
    // budget; none in the few buffers in which a patch change starts the
    // held notes in its patch), then fills `frames` stereo frames (any
    // number) with the patch's output, or with silence while muted or with
    // no patch open. Pd computes whole ticks of 64 frames; the part of a tick
    // that does not fit is kept for the next call, so that every buffer size
    // plays without gaps. A buffer with a sample that is not a finite number
    // (a patch gone wrong) is silenced, the patch's DSP is switched off and
    // on again to clear its state, and the GUI thread says so once.
    //
    // Audio thread (or any one thread while no audio thread runs). What libpd
    // itself may still do in here: take its own per-instance lock (never
    // contended: only this thread uses the instance) and, in some Pd
    // objects' message methods, allocate. This code itself never blocks,
    // locks, allocates, logs or emits.
    void render(float* output, int frames) noexcept;
    // GUI thread: whether an audio thread calls render() from now on (the
    // audio output says so when its stream starts and once it has stopped;
    // a test that plays the audio thread may say so too). Without one, a
    // patch change is carried out at once, on the calling thread.
    void setAudioThreadRunning(bool running)
    {
        mAudioThreadRunning.store(running, std::memory_order_release);
    }
    // Any thread. Muted, every buffer is silence; the patch runs on.
    void setMuted(bool muted) { mMuted.store(muted, std::memory_order_relaxed); }
    // Any thread: whether an audio thread calls render() now.
    bool isAudioThreadRunning() const
    {
        return mAudioThreadRunning.load(std::memory_order_acquire);
    }
    // The sample rate of the last initAudio() (44100 before any). GUI thread.
    int sampleRate() const { return mSampleRate; }

    // GUI thread: the recording that render() feeds from its next buffer on
    // (see RecordTap); null: none. The tap replaced may still be in use by a
    // buffer under way: it may be freed once waitForBufferEnd() said so.
    void setRecordTap(RecordTap* tap) { mRecordTap.store(tap, std::memory_order_seq_cst); }
    // GUI thread: waits until a buffer that was under way when it was called
    // has ended (true at once while no audio thread runs). False when none
    // ended within `timeoutMs`: the audio thread is stuck.
    bool waitForBufferEnd(int timeoutMs) const;
    // Audio thread (or while none runs): the state the commands have set,
    // for a recording that begins here.
    void captureState(PlayerState& state) const;
    // Only while no audio thread runs, with the patch open: puts a recorded
    // state back (the controls, the macros, the notes that sounded, each on
    // its voice), as the offline render does before its first buffer.
    void restoreState(const PlayerState& state);

    // Buffers silenced because a sample was not finite, since the last call
    // to reportRefusedCommands(). Any thread.
    quint32 silencedBuffers() const { return mSilencedBuffers.load(); }

    static constexpr int CHANNELS = PatchMixer::CHANNELS;
    static constexpr int MACRO_COUNT = PatchMixer::MACRO_COUNT;
    // How long a patch change crossfades from the old patch to the new one.
    static constexpr double CROSSFADE_SECONDS = PatchMixer::CROSSFADE_SECONDS;

    // GUI thread: turns the results the audio thread queued into the
    // signals below (noteToggled, transposed, ...), in order, and signals a
    // waiting run of patch steps. A timer calls it every few milliseconds;
    // tests that play the audio thread call it after each buffer.
    void deliverResults();
    // GUI thread, in a slot of a signal that deliverResults() emits: when
    // the buffer that carried the command out began on the audio thread
    // (what the latency benchmarks measure to).
    std::chrono::steady_clock::time_point resultBufferStart() const
    {
        return mDeliveredBufferStart;
    }

    // Whether a patch is open (or on its way to the audio thread). Any
    // thread: published by the GUI thread as it loads and unloads patches.
    bool isPatchOpen() const { return mPatchOpen.load(std::memory_order_acquire); }

    // Any thread: numerator / denominator × the base frequency.
    float ratioToFrequency(const ArboRatio& ratio) const { return mVoices.frequencyOf(ratio); }

    // The same effects as the commands, without a buffer: the commands are
    // carried out through them. Audio thread (or while no audio thread runs).
    void setVolume(float volume) { mControls.setVolume(volume); }
    void setVoiceVolume(float volume) { mControls.setVoiceVolume(volume); }
    void setMonophonic(bool monophonic) { mControls.setMonophonic(monophonic); }
    void setBaseFrequency(float frequency) { mControls.setBaseFrequency(frequency); }
    void togglePrimeEnabled(int prime) { mControls.togglePrimeEnabled(prime); }
    void setMacroValue(int macro, float value) { mControls.setMacroValue(macro, value); }
    void transpose(signed char step) { mControls.transpose(step); }

    // Read-only views for tests and diagnostics; audio thread, or any thread
    // while no audio thread runs.
    const StaticArray<NoteOn, VOICE_COUNT>& voices() const { return mVoices.voices(); }
    const ArboRatio& transposition() const { return mControls.transposition(); }
    float volume() const { return mMixer.volume(); }
    float voiceVolume() const { return mVoices.voiceVolume(); }
    float baseFrequency() const { return mVoices.baseFrequency(); }
    bool monophonic() const { return mVoices.monophonic(); }
    bool primeEnabled(int prime) const { return mControls.primeEnabled(prime); }
    // Notes in the note table (sounding or releasing). Any thread: published
    // by the audio thread after every change.
    int soundingNoteCount() const { return mVoices.soundingNoteCount(); }

    // The MIDI output's tap: while set, every note the player starts (within
    // the playable range) or ends, and every "stop all", is also written into
    // `tap` on the audio thread, with the note's exact frequency. Null: no
    // tap. GUI thread; the ring must outlive its use (set null first).
    void setNoteTap(MidiNoteRing* tap) { mVoices.setNoteTap(tap); }
    // Whether note-ons reach the patch. Off while the MIDI output plays the
    // notes on another instrument alone. Any thread; takes effect from the
    // next note-on.
    void setBuiltInSound(bool on) { mVoices.setBuiltInSound(on); }
    bool builtInSound() const { return mVoices.builtInSound(); }

    // Commands that the audio thread refused since the last report: a
    // transposition that is no prime step or would leave the exact ratios,
    // a note beyond the exact ratios. Any thread.
    quint32 refusedTranspositions() const { return mControls.refusedTranspositions(); }
    quint32 refusedNotes() const { return mControls.refusedNotes(); }
    // Commands refused since the last report for a value out of its range
    // (ArboEvent::refusal, or a volume step that would leave the range),
    // over all sources. Any thread.
    quint32 refusedValues() const { return mCommands.refusedValues(); }

    // GUI thread: the patch steps asked for by commands since the last call,
    // added up (+1 for each step to the next patch, -1 for each step back),
    // and clears them. A patch change takes a good part of a second, while
    // wands and the network can ask for hundreds a second: the steps are
    // summed on the audio thread and only the first of a run is signalled
    // (patchIncRequested or patchDecRequested, by its direction), so the
    // window changes to the patch they add up to, once, however many came.
    // The next step after this call is signalled again.
    int takePatchSteps();
    // GUI thread: logs what the audio thread refused since the last call, one
    // line per kind, and clears the counts. A timer calls it every second
    // while the player runs, so a flood of bad input costs a line a second.
    void reportRefusedCommands();

    // Scenes (see SceneRecaller). GUI thread: the active cue list's scenes
    // from now on; and, after sceneStored() with `taken`, the snapshot.
    void publishScenes(std::unique_ptr<SceneTable> table) { mScenes.publish(std::move(table)); }
    bool takeSceneSnapshot(SceneTable::Snapshot& snapshot) { return mScenes.takeSnapshot(snapshot); }
    // The OSC receiver's thread only: asks for a store of the sound as it is
    // under `name` (cut to 63 bytes), through the OSC command ring; the name
    // waits for the GUI thread beside it. False when either was full.
    bool queueSceneStoreOsc(const char* name);
    // GUI thread, on sceneStored() from the OSC source: the name that came
    // with `ticket`; empty when it is gone.
    QString takeOscSceneName(float ticket);

signals:
    void noteToggled(ArboRatio ratio, bool on);
    void transposed(ArboRatio transposition, int step);
    void volumeChanged(float volume);
    void voiceVolumeChanged(float volume);
    void baseFrequencyChanged(float frequency);
    void monophonicChanged(bool monophonic);
    void primeEnabledToggled(int prime, bool enabled);
    void macroNamesReceived(QStringList names);
    void macroDefaultsReceived(QList<float> defaults);
    void macroValueChanged(int macro, float value);
    void patchLoaded(QString path);
    void patchDecRequested();
    void patchIncRequested();
    // The audio thread recalled scene `index` (the scene `id`) of the table
    // published last.
    void sceneRecalled(int index, quint32 id);
    // A store was asked for from `source` (CommandDispatcher::Source) with
    // `ticket`; `taken`: a snapshot waits in takeSceneSnapshot().
    void sceneStored(int source, float ticket, bool taken);
    // The output's level since the last report, a few dozen times a second
    // while the audio thread runs: the highest magnitude, the RMS, and
    // whether a sample reached full scale (1.0).
    void levelMeasured(float peak, float rms, bool clipped);
    // Record commands came in (from keys, MIDI, OSC or wands): what they add
    // up to, a CommandDispatcher::RecordRequest.
    void recordRequested(int request);
    // Emitted on the GUI thread right before a patch change is handed to the
    // audio thread, so that a recording can name the patch when the audio
    // thread takes the change up (`serial`, counting from 1, see
    // PlayerState::patchSerial): `file` is the patch opened, empty when the
    // patch closes. Connect directly.
    void patchHandingOver(quint32 serial, QString file);

public slots:
    // GUI thread only: copies the event into the GUI command buffer. The
    // caller keeps the event. Never blocks.
    void queueEventGui(const ArboEvent* event);
    // UDP listener thread only (connected directly): copies the event into
    // the serial command buffer. The caller keeps the event. Never blocks.
    void queueEventSerial(const ArboEvent* event);
    // The MIDI input's thread only, and the OSC receiver's thread only: each
    // has a buffer of its own, as the wands and the GUI have. Never block,
    // never log (a full buffer is counted and reported once a second).
    void queueEventMidi(const ArboEvent* event);
    void queueEventOsc(const ArboEvent* event);

private:
    // GUI thread: hands `instance` (null: no patch), opened from `file`,
    // over to the audio thread, or, without one, carries the change out at
    // once.
    void handOver(PdInstance* instance, const QString& file);
    // Audio thread: the recording this buffer of `frames` feeds, or null.
    RecordTap* beginRecordedBuffer(int frames) noexcept;
    // Audio thread: adds the buffer to the level for the meter.
    void measureLevel(const float* output, int frames) noexcept;
    // GUI thread: the signal for one result, and the one for a run of patch
    // steps (see takePatchSteps()).
    void emitResult(const PlayerResult& result);
    void signalPatchSteps();

    static void pdPrintHook(const char* text);
    static void pdListHook(const char* recv, int argc, _atom* argv);

    // The player that libpd's plain-function hooks reach.
    static PdPlayer* sThis;

    // The parts, each with the thread contract in its header. Declared in the
    // order they need each other.
    PlayerResultQueue mResults;
    PatchMixer mMixer;
    VoicePool mVoices{mMixer, mResults};
    PatchChanger mChanger{mMixer, mVoices, mResults};
    PlayerControls mControls{mMixer, mVoices, mChanger, mResults};
    SceneRecaller mScenes{mControls, mVoices, mChanger, mResults};
    CommandDispatcher mCommands{mControls, mVoices, mScenes, mResults};
    // Names of the stores asked for over OSC, on their way to the GUI thread.
    struct SceneName
    {
        float ticket;
        char text[64];
    };
    SpscQueue<SceneName, 16> mOscSceneNames;
    float mOscSceneTicket = 0.0f; // the OSC receiver's thread

    std::atomic<bool> mPatchOpen{false};
    // Whether a signal for the patch steps not yet taken is on its way (see
    // takePatchSteps()). GUI thread.
    bool mPatchStepSignalled = false;

    // Results, from the audio thread to the GUI thread.
    static constexpr int DELIVERY_INTERVAL_MS = 5;
    static constexpr int LEVEL_REPORTS_PER_SECOND = 30;
    std::chrono::steady_clock::time_point mDeliveredBufferStart; // GUI thread
    // What Pd prints on the audio thread, for the GUI thread to log.
    struct PrintLine
    {
        char text[120];
    };
    SpscQueue<PrintLine, 32> mPrintLines;
    QTimer mDeliveryTimer;
    std::atomic<bool> mMuted{false};
    bool mReplaying = false; // the rendering thread
    std::atomic<bool> mAudioThreadRunning{false};
    std::atomic<quint32> mSilencedBuffers{0};
    std::atomic<RecordTap*> mRecordTap{nullptr};
    std::atomic<std::uint64_t> mBuffersEnded{0};
    quint32 mHandOverSerial = 0; // GUI thread
    int mSampleRate = 44100;     // GUI thread
    // The level since the last report (audio thread).
    float mLevelPeak = 0.0f;
    double mLevelSquares = 0.0;
    int mLevelFrames = 0;
    bool mLevelClipped = false;
    int mLevelInterval = 44100 / 30; // frames between reports

    QTimer mReportTimer;
};
