#include "engines/WavFile.h"

#include <QFile>
#include <QSaveFile>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vocari {

AudioBuffer WavAudio::slice(uint32_t first, uint32_t count) const
{
    const uint32_t total = frames();
    first = std::min(first, total);
    count = std::min(count, total - first);
    const auto channels = size_t(std::max(format.channels, 1));
    return AudioBuffer::fromInterleaved(
        format, std::span(samples).subspan(first * channels, count * channels));
}

namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatFloat = 3;
constexpr uint16_t kFormatExtensible = 0xFFFE;

uint16_t u16(const char *p)
{
    return uint16_t(uint8_t(p[0]) | uint8_t(p[1]) << 8);
}

uint32_t u32(const char *p)
{
    return uint32_t(uint8_t(p[0])) | uint32_t(uint8_t(p[1])) << 8 | uint32_t(uint8_t(p[2])) << 16 |
           uint32_t(uint8_t(p[3])) << 24;
}

bool fail(QString *error, const QString &message)
{
    if (error)
        *error = message;
    return false;
}

// One sample of the given encoding as a float in [-1, 1].
float decodeSample(const char *p, uint16_t encoding, uint16_t bits)
{
    if (encoding == kFormatFloat) {
        if (bits == 32) {
            float v;
            std::memcpy(&v, p, 4);
            return v;
        }
        double v;
        std::memcpy(&v, p, 8);
        return float(v);
    }
    switch (bits) {
    case 8:
        return (float(uint8_t(p[0])) - 128.0f) / 128.0f;
    case 16:
        return float(int16_t(u16(p))) / 32768.0f;
    case 24: {
        int32_t v = int32_t(uint32_t(uint8_t(p[0])) << 8 | uint32_t(uint8_t(p[1])) << 16 |
                            uint32_t(uint8_t(p[2])) << 24);
        return float(v >> 8) / 8388608.0f;
    }
    default:
        return float(double(int32_t(u32(p))) / 2147483648.0);
    }
}

} // namespace

std::optional<WavAudio> WavFile::read(const QString &path, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        fail(error, QStringLiteral("Cannot open %1: %2").arg(path, file.errorString()));
        return std::nullopt;
    }
    const QByteArray data = file.readAll();
    const char *bytes = data.constData();
    if (data.size() < 12 || std::memcmp(bytes, "RIFF", 4) != 0 ||
        std::memcmp(bytes + 8, "WAVE", 4) != 0) {
        fail(error, QStringLiteral("%1 is not a WAV file.").arg(path));
        return std::nullopt;
    }

    uint16_t encoding = 0, channels = 0, bits = 0;
    uint32_t rate = 0;
    const char *payload = nullptr;
    qsizetype payloadSize = 0;
    for (qsizetype at = 12; at + 8 <= data.size();) {
        const char *chunk = bytes + at;
        const qsizetype size = u32(chunk + 4);
        const qsizetype available = std::min(size, data.size() - at - 8);
        if (std::memcmp(chunk, "fmt ", 4) == 0 && available >= 16) {
            encoding = u16(chunk + 8);
            channels = u16(chunk + 10);
            rate = u32(chunk + 12);
            bits = u16(chunk + 22);
            if (encoding == kFormatExtensible && available >= 26)
                encoding = u16(chunk + 32); // the sub-format GUID begins with the plain code
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            payload = chunk + 8;
            payloadSize = available; // a truncated file keeps what it has
        }
        at += 8 + size + (size & 1);
    }

    const bool supported = (encoding == kFormatPcm && (bits == 8 || bits == 16 || bits == 24 ||
                                                       bits == 32)) ||
                           (encoding == kFormatFloat && (bits == 32 || bits == 64));
    if (!channels || !rate || !supported) {
        fail(error, QStringLiteral("%1: unsupported WAV encoding (format %2, %3 bits, %4 channels).")
                        .arg(path)
                        .arg(encoding)
                        .arg(bits)
                        .arg(channels));
        return std::nullopt;
    }
    if (!payload) {
        fail(error, QStringLiteral("%1 has no audio data.").arg(path));
        return std::nullopt;
    }

    WavAudio audio;
    audio.format = {double(rate), int(channels)};
    const qsizetype bytesPerSample = bits / 8;
    const qsizetype frameBytes = bytesPerSample * channels;
    const qsizetype frames = payloadSize / frameBytes;
    audio.samples.resize(size_t(frames) * channels);
    for (qsizetype i = 0; i < frames * channels; ++i)
        audio.samples[size_t(i)] = decodeSample(payload + i * bytesPerSample, encoding, bits);
    return audio;
}

bool WavFile::write(const QString &path, const AudioFormat &format,
                    std::span<const float> interleaved, QString *error)
{
    if (!format.isValid())
        return fail(error, QStringLiteral("Cannot write %1: invalid audio format.").arg(path));
    QByteArray out;
    const auto dataBytes = uint32_t(interleaved.size() * 2);
    auto put16 = [&out](uint16_t v) {
        out.append(char(v & 0xff));
        out.append(char(v >> 8));
    };
    auto put32 = [&out](uint32_t v) {
        for (int i = 0; i < 4; ++i)
            out.append(char((v >> (8 * i)) & 0xff));
    };
    const auto channels = uint16_t(format.channels);
    const auto rate = uint32_t(format.sampleRate);
    out.append("RIFF");
    put32(36 + dataBytes);
    out.append("WAVEfmt ");
    put32(16);
    put16(kFormatPcm);
    put16(channels);
    put32(rate);
    put32(rate * channels * 2);
    put16(uint16_t(channels * 2));
    put16(16);
    out.append("data");
    put32(dataBytes);
    for (float sample : interleaved)
        put16(uint16_t(int16_t(std::lround(std::clamp(sample, -1.0f, 1.0f) * 32767.0f))));

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(out) != out.size() || !file.commit())
        return fail(error, QStringLiteral("Cannot write %1: %2").arg(path, file.errorString()));
    return true;
}

} // namespace vocari
