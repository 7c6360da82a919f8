#include "audioanalysis.h"

#include <QFile>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <vector>

namespace AudioAnalysis {

namespace {

constexpr double PI = 3.14159265358979323846;

quint16 le16(const char* p)
{
    return quint16(quint8(p[0]) | (quint8(p[1]) << 8));
}

quint32 le32(const char* p)
{
    return quint32(quint8(p[0])) | (quint32(quint8(p[1])) << 8) | (quint32(quint8(p[2])) << 16) |
           (quint32(quint8(p[3])) << 24);
}

bool fail(QString* error, const QString& text)
{
    if (error) {
        *error = text;
    }
    return false;
}

// In-place radix-2 FFT; the size must be a power of two.
void fft(std::vector<std::complex<double>>& data)
{
    const std::size_t n = data.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) {
            j ^= bit;
        }
        j ^= bit;
        if (i < j) {
            std::swap(data[i], data[j]);
        }
    }
    for (std::size_t length = 2; length <= n; length <<= 1) {
        const double angle = -2.0 * PI / double(length);
        const std::complex<double> step(std::cos(angle), std::sin(angle));
        for (std::size_t start = 0; start < n; start += length) {
            std::complex<double> w(1.0, 0.0);
            for (std::size_t k = 0; k < length / 2; ++k) {
                const std::complex<double> even = data[start + k];
                const std::complex<double> odd = data[start + k + length / 2] * w;
                data[start + k] = even + odd;
                data[start + k + length / 2] = even - odd;
                w *= step;
            }
        }
    }
}

} // namespace

QVector<float> Wav::channel(int index) const
{
    return channel(index, 0.0, -1.0);
}

QVector<float> Wav::channel(int index, double fromSeconds, double seconds) const
{
    QVector<float> result;
    if (index < 0 || index >= channels) {
        return result;
    }
    const int first = std::max(0, int(fromSeconds * sampleRate));
    int last = frames();
    if (seconds >= 0.0) {
        last = std::min(last, first + int(seconds * sampleRate));
    }
    for (int frame = first; frame < last; ++frame) {
        result.append(samples[frame * channels + index]);
    }
    return result;
}

Wav readWav(const QString& path, QString* error)
{
    Wav wav;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        fail(error, QStringLiteral("cannot open %1").arg(path));
        return wav;
    }
    const QByteArray bytes = file.readAll();
    const char* data = bytes.constData();
    const int size = bytes.size();
    if (size < 12 || std::memcmp(data, "RIFF", 4) != 0 || std::memcmp(data + 8, "WAVE", 4) != 0) {
        fail(error, QStringLiteral("%1 is no RIFF/WAVE file").arg(path));
        return wav;
    }

    int format = 0;
    int channels = 0;
    int sampleRate = 0;
    int bits = 0;
    int offset = 12;
    const char* audio = nullptr;
    qint64 audioBytes = 0;
    while (offset + 8 <= size) {
        const char* chunk = data + offset;
        const quint32 chunkSize = le32(chunk + 4);
        const char* body = chunk + 8;
        const qint64 available = size - (offset + 8);
        if (std::memcmp(chunk, "fmt ", 4) == 0 && available >= 16) {
            format = le16(body);
            channels = le16(body + 2);
            sampleRate = int(le32(body + 4));
            bits = le16(body + 14);
            // WAVE_FORMAT_EXTENSIBLE: the real format is in the sub-format GUID.
            if (format == 0xFFFE && chunkSize >= 40 && available >= 40) {
                format = le16(body + 24);
            }
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            audio = body;
            // A recording cut short may leave the size unset (0 or all ones).
            audioBytes = (chunkSize == 0 || chunkSize > available) ? available : chunkSize;
            break;
        }
        offset += 8 + int(chunkSize) + int(chunkSize & 1);
        if (chunkSize > quint32(size)) {
            break;
        }
    }
    if (!audio || channels <= 0 || sampleRate <= 0 || bits <= 0) {
        fail(error, QStringLiteral("%1 has no usable fmt and data chunks").arg(path));
        return wav;
    }
    const int bytesPerSample = bits / 8;
    const bool isFloat = format == 3;
    if (!(format == 1 || isFloat) || (isFloat && bits != 32 && bits != 64) ||
        (!isFloat && (bytesPerSample < 1 || bytesPerSample > 4))) {
        fail(error, QStringLiteral("%1: unsupported format %2 with %3 bits")
                        .arg(path)
                        .arg(format)
                        .arg(bits));
        return wav;
    }

    const qint64 count = audioBytes / bytesPerSample / channels * channels;
    wav.samples.resize(int(count));
    for (qint64 i = 0; i < count; ++i) {
        const char* p = audio + i * bytesPerSample;
        float value = 0.0f;
        if (isFloat && bits == 32) {
            const quint32 raw = le32(p);
            std::memcpy(&value, &raw, sizeof(value));
        } else if (isFloat) {
            quint64 raw = quint64(le32(p)) | (quint64(le32(p + 4)) << 32);
            double d;
            std::memcpy(&d, &raw, sizeof(d));
            value = float(d);
        } else if (bytesPerSample == 1) {
            value = float(int(quint8(p[0])) - 128) / 128.0f; // 8-bit WAV is unsigned
        } else {
            // Little-endian signed: place the bytes at the top of 32 bits.
            quint32 raw = 0;
            for (int b = 0; b < bytesPerSample; ++b) {
                raw |= quint32(quint8(p[b])) << (8 * (4 - bytesPerSample + b));
            }
            value = float(double(qint32(raw)) / 2147483648.0);
        }
        wav.samples[int(i)] = value;
    }
    wav.channels = channels;
    wav.sampleRate = sampleRate;
    return wav;
}

double rms(const QVector<float>& samples)
{
    if (samples.isEmpty()) {
        return 0.0;
    }
    double sum = 0.0;
    for (float s : samples) {
        sum += double(s) * double(s);
    }
    return std::sqrt(sum / samples.size());
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

int firstSampleAbove(const QVector<float>& samples, float threshold)
{
    for (int i = 0; i < samples.size(); ++i) {
        if (std::fabs(samples[i]) > threshold) {
            return i;
        }
    }
    return -1;
}

QVector<Peak> spectralPeaks(const QVector<float>& samples, double sampleRate, int count,
                            double minHz, double maxHz)
{
    QVector<Peak> result;
    std::size_t n = 1;
    while (n * 2 <= std::size_t(samples.size())) {
        n *= 2;
    }
    if (n < 4096 || sampleRate <= 0.0) {
        return result;
    }
    // The middle of the signal, Hann-windowed against leakage.
    const std::size_t start = (std::size_t(samples.size()) - n) / 2;
    std::vector<std::complex<double>> data(n);
    for (std::size_t i = 0; i < n; ++i) {
        const double window = 0.5 - 0.5 * std::cos(2.0 * PI * double(i) / double(n - 1));
        data[i] = std::complex<double>(double(samples[int(start + i)]) * window, 0.0);
    }
    fft(data);

    const std::size_t half = n / 2;
    std::vector<double> db(half);
    for (std::size_t k = 0; k < half; ++k) {
        // Amplitude of a full-scale sine reads about 0 dB (Hann gain 1/2).
        const double magnitude = std::abs(data[k]) * 4.0 / double(n);
        db[k] = 20.0 * std::log10(std::max(magnitude, 1e-12));
    }
    const double binHz = sampleRate / double(n);
    const auto firstBin = std::max<std::size_t>(1, std::size_t(std::floor(minHz / binHz)));
    const auto lastBin = std::min<std::size_t>(half - 2, std::size_t(std::ceil(maxHz / binHz)));
    QVector<Peak> candidates;
    for (std::size_t k = firstBin; k <= lastBin; ++k) {
        if (db[k] > db[k - 1] && db[k] >= db[k + 1] && db[k] > -120.0) {
            // Parabola through the three log magnitudes around the maximum.
            const double a = db[k - 1];
            const double b = db[k];
            const double c = db[k + 1];
            const double denominator = a - 2.0 * b + c;
            const double shift = denominator != 0.0 ? 0.5 * (a - c) / denominator : 0.0;
            Peak peakFound;
            peakFound.frequency = (double(k) + shift) * binHz;
            peakFound.magnitudeDb = b - 0.25 * (a - c) * shift;
            candidates.append(peakFound);
        }
    }
    std::sort(candidates.begin(), candidates.end(),
              [](const Peak& x, const Peak& y) { return x.magnitudeDb > y.magnitudeDb; });
    for (const Peak& candidate : candidates) {
        if (result.size() >= count) {
            break;
        }
        result.append(candidate);
    }
    return result;
}

double dominantFrequency(const QVector<float>& samples, double sampleRate, double minHz,
                         double maxHz)
{
    const QVector<Peak> peaks = spectralPeaks(samples, sampleRate, 1, minHz, maxHz);
    return peaks.isEmpty() ? 0.0 : peaks.first().frequency;
}

double cents(double frequency, double reference)
{
    return 1200.0 * std::log2(frequency / reference);
}

std::complex<double> demodulate(const float* x, long start, long length, double frequency,
                                double sampleRate)
{
    const double w = 2.0 * M_PI * frequency / sampleRate;
    std::complex<double> sum;
    double weights = 0.0;
    std::complex<double> rot = std::polar(1.0, -w * double(start));
    const std::complex<double> step = std::polar(1.0, -w);
    for (long n = 0; n < length; ++n) {
        const double hann = 0.5 - 0.5 * std::cos(2.0 * M_PI * (n + 0.5) / length);
        sum += hann * double(x[start + n]) * rot;
        weights += hann;
        rot *= step;
        if ((n & 1023) == 1023) {
            rot /= std::abs(rot); // keep the rotator on the unit circle
        }
    }
    return 2.0 * sum / weights;
}

ToneEstimate measureTone(const float* samples, long start, long end, double nominal,
                         double sampleRate)
{
    const long window = long(sampleRate / 20);
    std::vector<double> times;
    std::vector<double> phases;
    ToneEstimate result;
    result.minAmplitude = std::numeric_limits<double>::max();
    for (long at = start; at + window <= end; at += window) {
        const std::complex<double> c = demodulate(samples, at, window, nominal, sampleRate);
        result.minAmplitude = std::min(result.minAmplitude, std::abs(c));
        const double phase = std::arg(c);
        double unwrapped = phase;
        if (!phases.empty()) {
            const double step =
                std::remainder(phase - std::remainder(phases.back(), 2.0 * M_PI), 2.0 * M_PI);
            unwrapped = phases.back() + step;
        }
        phases.push_back(unwrapped);
        times.push_back((double(at) + window / 2.0) / sampleRate);
    }
    if (times.size() < 2) {
        result.minAmplitude = 0.0;
        return result;
    }
    const double n = double(times.size());
    double st = 0, sp = 0, stt = 0, stp = 0;
    for (size_t i = 0; i < times.size(); ++i) {
        st += times[i];
        sp += phases[i];
        stt += times[i] * times[i];
        stp += times[i] * phases[i];
    }
    const double slope = (n * stp - st * sp) / (n * stt - st * st);
    result.frequency = nominal + slope / (2.0 * M_PI);
    return result;
}

} // namespace AudioAnalysis
