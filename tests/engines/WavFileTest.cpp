#include "engines/WavFile.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace vocari;

namespace {

// A WAV header for `dataBytes` of payload in the given encoding.
QByteArray header(uint16_t encoding, uint16_t channels, uint32_t rate, uint16_t bits,
                  uint32_t dataBytes)
{
    QByteArray h;
    auto put16 = [&h](uint16_t v) { h.append(char(v & 0xff)).append(char(v >> 8)); };
    auto put32 = [&h](uint32_t v) {
        for (int i = 0; i < 4; ++i)
            h.append(char((v >> (8 * i)) & 0xff));
    };
    h.append("RIFF");
    put32(36 + dataBytes);
    h.append("WAVEfmt ");
    put32(16);
    put16(encoding);
    put16(channels);
    put32(rate);
    put32(rate * channels * bits / 8);
    put16(uint16_t(channels * bits / 8));
    put16(bits);
    h.append("data");
    put32(dataBytes);
    return h;
}

QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    const QString path = dir.filePath(name);
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(bytes);
    return path;
}

} // namespace

TEST(WavFile, RoundTripsSixteenBitStereo)
{
    QTemporaryDir dir;
    const std::vector<float> samples{0.0f, 0.5f, -0.5f, 1.0f, -1.0f, 0.25f};
    QString error;
    ASSERT_TRUE(WavFile::write(dir.filePath("a.wav"), {44100, 2}, samples, &error)) << error.toStdString();
    const auto audio = WavFile::read(dir.filePath("a.wav"), &error);
    ASSERT_TRUE(audio) << error.toStdString();
    EXPECT_EQ(audio->format, (AudioFormat{44100, 2}));
    EXPECT_EQ(audio->frames(), 3u);
    for (size_t i = 0; i < samples.size(); ++i)
        EXPECT_NEAR(audio->samples[i], samples[i], 1e-4);

    const AudioBuffer right = audio->slice(1, 5);
    EXPECT_EQ(right.frameLength(), 2u);
    EXPECT_NEAR(right.channel(1)[0], 1.0f, 1e-4);
    EXPECT_NEAR(right.channel(0)[1], -1.0f, 1e-4);
}

TEST(WavFile, ReadsFloatAnd24BitPayloads)
{
    QTemporaryDir dir;
    QByteArray f32 = header(3, 1, 16000, 32, 8);
    const float values[2] = {0.75f, -0.125f};
    f32.append(reinterpret_cast<const char *>(values), 8);
    auto audio = WavFile::read(writeFile(dir, "f.wav", f32));
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->samples, (std::vector<float>{0.75f, -0.125f}));

    QByteArray s24 = header(1, 1, 8000, 24, 6);
    s24.append(QByteArray::fromHex("000040" "0000c0")); // +0.5, -0.5
    audio = WavFile::read(writeFile(dir, "s24.wav", s24));
    ASSERT_TRUE(audio);
    EXPECT_FLOAT_EQ(audio->samples[0], 0.5f);
    EXPECT_FLOAT_EQ(audio->samples[1], -0.5f);
}

TEST(WavFile, RefusesWhatIsNotUsableWithAOneLineReason)
{
    QTemporaryDir dir;
    QString error;
    EXPECT_FALSE(WavFile::read(dir.filePath("missing.wav"), &error));
    EXPECT_TRUE(error.contains("missing.wav"));

    EXPECT_FALSE(WavFile::read(writeFile(dir, "text.wav", "just some text, not audio"), &error));
    EXPECT_TRUE(error.contains("not a WAV file"));

    EXPECT_FALSE(WavFile::read(writeFile(dir, "alaw.wav", header(6, 1, 8000, 8, 0)), &error));
    EXPECT_TRUE(error.contains("unsupported"));
    EXPECT_FALSE(error.contains('\n'));

    QByteArray noData = header(1, 1, 8000, 16, 0);
    noData.chop(8);
    EXPECT_FALSE(WavFile::read(writeFile(dir, "nodata.wav", noData), &error));
    EXPECT_TRUE(error.contains("no audio"));

    // A payload cut short keeps the whole frames it has.
    QByteArray truncated = header(1, 2, 8000, 16, 400);
    truncated.append(QByteArray(10, '\0'));
    const auto audio = WavFile::read(writeFile(dir, "short.wav", truncated));
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->frames(), 2u);
}
