#pragma once

#include <QString>
#include <QVector>

// Reading recorded audio and finding what sounds in it, for tests that listen
// to the program's output.
namespace AudioAnalysis {

struct Wav
{
    int sampleRate = 0;
    int channels = 0;
    QVector<float> samples; // interleaved

    int frames() const { return channels > 0 ? samples.size() / channels : 0; }
    // One channel's samples.
    QVector<float> channel(int index) const;
};

// Reads a RIFF/WAVE file of 32-bit float samples, what jack_capture writes
// (also in the extensible layout). A data chunk whose size was never filled
// in (a recording cut short) is read up to the end of the file. On failure
// returns an invalid Wav and, if given, the reason in `error`.
Wav readWav(const QString& path, QString* error = nullptr);

// Reads any sound file libsndfile reads (the recorder's WAV and FLAC files),
// as floats; an invalid Wav and the reason in `error` when it cannot, as
// for a file that is not a valid, playable sound file.
Wav readSoundFile(const QString& path, QString* error = nullptr);
double rms(const QVector<float>& samples);
double peak(const QVector<float>& samples);
// 20·log10 of the RMS; -infinity for digital silence.
double rmsDb(const QVector<float>& samples);

// 1200 · log2(frequency / reference).
double cents(double frequency, double reference);

struct ToneEstimate
{
    double frequency = 0.0;    // Hz
    double minAmplitude = 0.0; // smallest amplitude of the tone in any window
};

// The frequency of the steady tone near `nominal` in samples [start, end),
// precise enough to judge tuning to far below 0.1 cent: the tone's phase in
// consecutive 50 ms windows, unwrapped and fitted by least squares. A window-
// to-window phase step is unambiguous within ±10 Hz of `nominal`; over 2 s a
// 0.1 cent error at 660 Hz turns the phase by 0.48 rad, while the fit
// resolves far below 1e-3 rad. `minAmplitude` tells whether the tone really
// sounded throughout.
ToneEstimate measureTone(const float* samples, long start, long end, double nominal,
                         double sampleRate);

// For live recordings, whose exact pitch is measured offline elsewhere (a
// capture on a busy machine may drop a period): a tone within 10 cents of
// `frequency` sounds throughout, clearly above silence, and what was heard,
// for the message of a failed check...
bool soundsNear(const QVector<float>& samples, double frequency, double sampleRate = 44100.0);
QString heardNear(const QVector<float>& samples, double frequency, double sampleRate = 44100.0);
// ...and a recording of about half a second or more is below -80 dB.
bool isSilent(const QVector<float>& samples);

} // namespace AudioAnalysis
