#pragma once

#include <QString>
#include <QVector>

#include <complex>

// Reading recorded audio and finding what sounds in it: a WAV reader and a
// spectral peak finder, for tests that listen to the program's output.
namespace AudioAnalysis {

struct Wav
{
    int sampleRate = 0;
    int channels = 0;
    // Interleaved samples, scaled to -1..1 whatever the file's format.
    QVector<float> samples;

    bool isValid() const { return sampleRate > 0 && channels > 0; }
    int frames() const { return channels > 0 ? samples.size() / channels : 0; }
    // One channel's samples.
    QVector<float> channel(int index) const;
    // The seconds from `fromSeconds` on (up to `seconds` long, all when
    // negative), of one channel.
    QVector<float> channel(int index, double fromSeconds, double seconds) const;
};

// Reads a RIFF/WAVE file: PCM of 8, 16, 24 or 32 bits, 32- or 64-bit IEEE
// float, also in the extensible layout. A data chunk whose size was never
// filled in (a recording cut short) is read up to the end of the file. On
// failure returns an invalid Wav and, if given, the reason in `error`.
Wav readWav(const QString& path, QString* error = nullptr);

double rms(const QVector<float>& samples);
double peak(const QVector<float>& samples);
// 20·log10 of the RMS; -infinity for digital silence.
double rmsDb(const QVector<float>& samples);
// Index of the first sample whose magnitude exceeds `threshold`; -1 if none.
int firstSampleAbove(const QVector<float>& samples, float threshold);

struct Peak
{
    double frequency = 0.0; // Hz, interpolated between FFT bins
    double magnitudeDb = 0.0;
};

// The strongest spectral peaks between `minHz` and `maxHz`, strongest first,
// at most `count`, each a local maximum of a Hann-windowed FFT over the whole
// signal (cut to a power of two of at least 2^12 samples), with its frequency
// refined by parabolic interpolation. For a steady tone of a second or more at
// 44.1 kHz the frequency is right to well within 0.1 Hz.
QVector<Peak> spectralPeaks(const QVector<float>& samples, double sampleRate, int count = 1,
                            double minHz = 20.0, double maxHz = 20000.0);

// The frequency of the strongest peak; 0 when there is none (silence).
double dominantFrequency(const QVector<float>& samples, double sampleRate, double minHz = 20.0,
                         double maxHz = 20000.0);

// 1200 · log2(frequency / reference).
double cents(double frequency, double reference);

// Complex amplitude of the component at `frequency` in a Hann window over
// samples [start, start + length), its phase referred to sample 0, so that
// windows at different places compare directly.
std::complex<double> demodulate(const float* samples, long start, long length, double frequency,
                                double sampleRate);

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
