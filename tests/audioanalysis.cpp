#include "audioanalysis.h"

#include <QFile>
#include <QtEndian>

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <numeric>
#include <vector>

namespace AudioAnalysis {

namespace {

double hann(double position, double length)
{
    return 0.5 - 0.5 * std::cos(2.0 * M_PI * position / length);
}

// Complex amplitude of the component at `frequency` in a Hann window over
// samples [start, start + length), its phase referred to sample 0, so that
// windows at different places compare directly.
std::complex<double> demodulate(const float* x, long start, long length, double frequency,
                                double sampleRate)
{
    const double w = 2.0 * M_PI * frequency / sampleRate;
    std::complex<double> sum;
    double weights = 0.0;
    for (long n = 0; n < length; ++n) {
        const double window = hann(n + 0.5, double(length));
        sum += window * double(x[start + n]) * std::polar(1.0, -w * double(start + n));
        weights += window;
    }
    return 2.0 * sum / weights;
}

} // namespace

QVector<float> Wav::channel(int index) const
{
    QVector<float> result;
    for (int frame = 0; index >= 0 && index < channels && frame < frames(); ++frame) {
        result.append(samples[frame * channels + index]);
    }
    return result;
}

Wav readSoundFile(const QString& path, QString* error)
{
    Wav wav;
    SF_INFO info{};
    SNDFILE* file = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!file) {
        if (error) {
            *error = QStringLiteral("%1: %2").arg(path, QString::fromLocal8Bit(sf_strerror(nullptr)));
        }
        return wav;
    }
    QVector<float> samples(int(info.frames * info.channels));
    const sf_count_t read = sf_readf_float(file, samples.data(), info.frames);
    sf_close(file);
    if (read != info.frames) {
        if (error) {
            *error = QStringLiteral("%1: %2 of %3 frames readable").arg(path).arg(read).arg(info.frames);
        }
        return wav;
    }
    wav.sampleRate = info.samplerate;
    wav.channels = info.channels;
    wav.samples = samples;
    return wav;
}

Wav readWav(const QString& path, QString* error)
{
    Wav wav;
    QFile file(path);
    const QByteArray bytes = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    const bool riff = bytes.startsWith("RIFF") && bytes.mid(8, 4) == "WAVE";
    int format = 0, channels = 0, sampleRate = 0, bits = 0;
    auto le16 = [](const char* p) { return int(qFromLittleEndian<quint16>(p)); };
    for (qint64 at = 12; riff && at + 8 <= bytes.size();) {
        const char* chunk = bytes.constData() + at;
        const qint64 chunkSize = qFromLittleEndian<quint32>(chunk + 4);
        const qint64 available = bytes.size() - at - 8;
        if (std::memcmp(chunk, "fmt ", 4) == 0 && available >= 16) {
            // WAVE_FORMAT_EXTENSIBLE has the real format in its sub-format GUID.
            const bool extensible = le16(chunk + 8) == 0xFFFE && available >= 40;
            format = le16(chunk + (extensible ? 32 : 8));
            channels = le16(chunk + 10);
            sampleRate = int(qFromLittleEndian<quint32>(chunk + 12));
            bits = le16(chunk + 22);
        } else if (std::memcmp(chunk, "data", 4) == 0 && format == 3 && bits == 32 &&
                   channels > 0 && sampleRate > 0) {
            // A recording cut short may leave the size unset (0 or all ones).
            const qint64 length = (chunkSize == 0 || chunkSize > available) ? available : chunkSize;
            wav.samples.resize(int(length / 4 / channels * channels));
            // The samples are little-endian IEEE floats, as on the machines we test on.
            std::memcpy(wav.samples.data(), chunk + 8, size_t(wav.samples.size()) * 4);
            wav.channels = channels;
            wav.sampleRate = sampleRate;
            return wav;
        }
        at += 8 + chunkSize + (chunkSize & 1);
    }
    if (error) {
        *error = QStringLiteral("%1 is no WAVE file of 32-bit floats").arg(path);
    }
    return wav;
}

double rms(const QVector<float>& samples)
{
    const double sum = std::inner_product(samples.begin(), samples.end(), samples.begin(), 0.0);
    return samples.isEmpty() ? 0.0 : std::sqrt(sum / samples.size());
}

double peak(const QVector<float>& samples)
{
    double result = 0.0;
    for (float s : samples) {
        result = std::max(result, std::fabs(double(s)));
    }
    return result;
}

double rmsDb(const QVector<float>& samples)
{
    const double value = rms(samples);
    return value > 0.0 ? 20.0 * std::log10(value) : -std::numeric_limits<double>::infinity();
}

double cents(double frequency, double reference)
{
    return 1200.0 * std::log2(frequency / reference);
}

ToneEstimate measureTone(const float* samples, long start, long end, double nominal,
                         double sampleRate)
{
    const long window = long(sampleRate / 20);
    std::vector<double> phases;
    ToneEstimate result;
    result.minAmplitude = std::numeric_limits<double>::max();
    for (long at = start; at + window <= end; at += window) {
        const std::complex<double> c = demodulate(samples, at, window, nominal, sampleRate);
        result.minAmplitude = std::min(result.minAmplitude, std::abs(c));
        // Unwrapped: the step from the last window, taken within ±π.
        const double last = phases.empty() ? 0.0 : phases.back();
        phases.push_back(last + std::remainder(std::arg(c) - last, 2.0 * M_PI));
    }
    if (phases.size() < 2) {
        return ToneEstimate();
    }
    // Least-squares slope of the phase over the (equally spaced) windows.
    const double middle = double(phases.size() - 1) / 2.0;
    double covariance = 0.0, variance = 0.0;
    for (std::size_t i = 0; i < phases.size(); ++i) {
        covariance += (double(i) - middle) * phases[i];
        variance += (double(i) - middle) * (double(i) - middle);
    }
    const double radiansPerSecond = covariance / variance * sampleRate / double(window);
    result.frequency = nominal + radiansPerSecond / (2.0 * M_PI);
    return result;
}

bool soundsNear(const QVector<float>& samples, double frequency, double sampleRate)
{
    // A tone 15 Hz or more away passes a 50 ms window at less than 0.7 of
    // its amplitude, while a single tone near `frequency` holds nearly all
    // of it (a period lost to the capture takes a quarter at most); nearer,
    // its phase gives it away.
    const ToneEstimate tone =
        measureTone(samples.constData(), 0, samples.size(), frequency, sampleRate);
    return rmsDb(samples) > -40.0 && tone.minAmplitude > 0.7 * std::sqrt(2.0) * rms(samples) &&
           std::abs(cents(tone.frequency, frequency)) < 10.0;
}

QString heardNear(const QVector<float>& samples, double frequency, double sampleRate)
{
    const ToneEstimate tone =
        measureTone(samples.constData(), 0, samples.size(), frequency, sampleRate);
    return QString::asprintf("%d samples at %g dB; near %g Hz: %g Hz, amplitude %g at least",
                             samples.size(), rmsDb(samples), frequency, tone.frequency,
                             tone.minAmplitude);
}

bool isSilent(const QVector<float>& samples)
{
    return samples.size() > 20000 && rmsDb(samples) < -80.0;
}

} // namespace AudioAnalysis
