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

double rms(const QVector<float>& samples);
double peak(const QVector<float>& samples);
// 20·log10 of the RMS; -infinity for digital silence.
double rmsDb(const QVector<float>& samples);

// The frequency of the strongest spectral peak between `minHz` and `maxHz`:
// a Hann-windowed FFT over the middle of the signal (cut to a power of two of
// at least 2^12 samples), refined by parabolic interpolation. For a steady
// tone of a second or more at 44.1 kHz it is right to well within 0.1 Hz.
// 0 when there is no peak (silence, or too short a signal).
double dominantFrequency(const QVector<float>& samples, double sampleRate, double minHz = 20.0,
                         double maxHz = 20000.0);

// 1200 · log2(frequency / reference).
double cents(double frequency, double reference);

// For live recordings, whose exact pitch is measured offline elsewhere (a
// capture on a busy machine may drop a period): a tone within 10 cents of
// `frequency` clearly above silence...
bool soundsNear(const QVector<float>& samples, double frequency, double sampleRate = 44100.0);
// ...and half a second or more below -80 dB.
bool isSilent(const QVector<float>& samples);
// What a recording measured, for the message of a failed check.
QString describe(const QVector<float>& samples, double sampleRate = 44100.0);

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

} // namespace AudioAnalysis
