#include "sound/playercontrols.h"

#include "model/arbo.h"
#include "model/arbopath.h"
#include "sound/patchchanger.h"
#include "sound/patchmixer.h"
#include "sound/playerresultqueue.h"
#include "sound/voicepool.h"

#include <cmath>
#include <cstdlib>

PlayerControls::PlayerControls(PatchMixer& mixer, VoicePool& voices, PatchChanger& changer,
                               PlayerResultQueue& results)
    : mMixer(mixer), mVoices(voices), mChanger(changer), mResults(results)
{
}

void PlayerControls::setVolume(float volume)
{
    mMixer.setVolume(volume);
    mResults.report(PlayerResult::Volume, 0, volume);
}

float PlayerControls::volume() const
{
    return mMixer.volume();
}

void PlayerControls::setVoiceVolume(float volume)
{
    // Takes effect from the next note-on; nothing goes to the patch now.
    mVoices.setVoiceVolume(volume);
    mResults.report(PlayerResult::VoiceVolume, 0, volume);
}

float PlayerControls::voiceVolume() const
{
    return mVoices.voiceVolume();
}

void PlayerControls::setMonophonic(bool monophonic)
{
    // Voices already sounding are left to ring.
    mVoices.setMonophonic(monophonic);
    mResults.report(PlayerResult::Monophonic, 0, 0.0f, monophonic);
}

void PlayerControls::setBaseFrequency(float frequency)
{
    // Sounding voices keep their frequency; new notes use the new base.
    mVoices.setBaseFrequency(frequency);
    mResults.report(PlayerResult::BaseFrequency, 0, frequency);
}

void PlayerControls::togglePrimeEnabled(int prime)
{
    if (prime < 0 || prime >= PRIME_FLAG_COUNT) {
        return;
    }
    mPrimeEnabled[prime] = !mPrimeEnabled[prime];
    mResults.report(PlayerResult::PrimeEnabled, prime, 0.0f, mPrimeEnabled[prime]);
}

void PlayerControls::setMacroValue(int macro, float value)
{
    // Macros are for the whole patch: voice -1 goes out as voice number 0.
    mMixer.sendVoiceMessage(PatchMixer::Macro1 + macro - 1, value, -1);
    if (macro >= 1 && macro <= PatchMixer::MACRO_COUNT) {
        mChanger.rememberMacro(macro - 1, value); // for the next patch change
    }
    mResults.report(PlayerResult::MacroValue, macro, value);
}

void PlayerControls::transpose(signed char step)
{
    if (step == 0) {
        mTransposition = ArboRatio(1, 1);
    } else {
        if (!Arbo::isValidPrime(step)) {
            return;
        }
        // The transposition is refused rather than wrapped when it would no
        // longer fit in 64 bits: a wrong ratio would be a wrong pitch.
        if (!mTransposition.multiplyIfExact(ArboRatio::pathRatio(ArboPath(step)))) {
            refuseTransposition(float(step));
            return;
        }
    }
    mResults.report(PlayerResult::Transposed, int(step), 0.0f, false, &mTransposition);
}

void PlayerControls::setTransposition(const ArboRatio& transposition)
{
    mTransposition = transposition;
    mResults.report(PlayerResult::Transposed, 0, 0.0f, false, &mTransposition);
}

void PlayerControls::transposeBy(float value)
{
    // Rounded to the nearest step, halves upward. Anything that is not a
    // prime step of the table (4, 1000, NaN from a hand-written tag map)
    // is refused here: its ratio would be 0 or a division by zero.
    const float rounded = std::floor(value + 0.5f);
    if (!(std::fabs(rounded) <= 31.0f) ||
        (rounded != 0.0f && !Arbo::isValidPrime(static_cast<signed char>(rounded)))) {
        refuseTransposition(value);
        return;
    }
    transpose(static_cast<signed char>(rounded));
}

void PlayerControls::refuseTransposition(float value)
{
    mLastRefusedTransposition.store(value, std::memory_order_relaxed);
    mRefusedTranspositions.fetch_add(1, std::memory_order_relaxed);
}

bool PlayerControls::resolveNote(const ArboPath& path, ArboRatio& ratio)
{
    // A path comes through the ring as raw bytes; one that is not made of
    // prime steps of the table has no pitch and is ignored like the invalid one.
    if (!path.isValid() || !path.hasValidSteps()) {
        return false;
    }
    // The root has no last step: it consults flag 0, which only PrimeToggle 0
    // changes, so the 1/1 is never blocked by a prime.
    const int length = path.length();
    const int prime = length > 0 ? std::abs(int(path.toCharArray()[length - 1])) : 0;
    if (!primeEnabled(prime)) {
        return false;
    }
    ratio = mTransposition;
    if (!ratio.multiplyIfExact(ArboRatio::pathRatio(path))) {
        quint64 bytes = 0;
        std::memcpy(&bytes, &path, sizeof(bytes));
        mLastRefusedNote.store(bytes, std::memory_order_relaxed);
        mRefusedNotes.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    return true;
}

quint32 PlayerControls::takeRefusedNotes(ArboPath& last)
{
    const quint32 count = mRefusedNotes.exchange(0);
    const quint64 bytes = mLastRefusedNote.load();
    std::memcpy(static_cast<void*>(&last), &bytes, sizeof(bytes));
    return count;
}
