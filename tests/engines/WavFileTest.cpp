#include "engines/WavFile.h"

#include <QDataStream>
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
    QDataStream out(&h, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("RIFF", 4);
    out << 36 + dataBytes;
    out.writeRawData("WAVEfmt ", 8);
    out << uint32_t(16) << encoding << channels << rate << rate * channels * bits / 8
        << uint16_t(channels * bits / 8) << bits;
    out.writeRawData("data", 4);
    out << dataBytes;
    return h;
}

QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    QFile file(dir.filePath(name));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    return file.fileName();
}

} // namespace

TEST(WavFile, RoundTripsSixteenBitStereoAndReadsFloatAnd24BitPayloads)
{
    QTemporaryDir dir;
    const std::vector<float> samples{0.0f, 0.5f, -0.5f, 1.0f, -1.0f, 0.25f};
    QString error;
    ASSERT_TRUE(WavFile::write(dir.filePath("a.wav"), {44100, 2}, samples, &error))
        << qPrintable(error);
    auto audio = WavFile::read(dir.filePath("a.wav"), &error);
    ASSERT_TRUE(audio) << qPrintable(error);
    EXPECT_EQ(audio->format, (AudioFormat{44100, 2}));
    ASSERT_EQ(audio->frames(), 3u);
    for (size_t i = 0; i < samples.size(); ++i)
        EXPECT_NEAR(audio->samples[i], samples[i], 1e-4);
    const AudioBuffer right = audio->slice(1, 5);
    EXPECT_EQ(right.frameLength(), 2u);
    EXPECT_NEAR(right.channel(1)[0], 1.0f, 1e-4);
    EXPECT_NEAR(right.channel(0)[1], -1.0f, 1e-4);

    QByteArray f32 = header(3, 1, 16000, 32, 8);
    const float values[2] = {0.75f, -0.125f};
    f32.append(reinterpret_cast<const char *>(values), 8);
    audio = WavFile::read(writeFile(dir, "f.wav", f32));
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->samples, (std::vector<float>{0.75f, -0.125f}));

    const QByteArray s24 = header(1, 1, 8000, 24, 6) + QByteArray::fromHex("000040"
                                                                           "0000c0");
    audio = WavFile::read(writeFile(dir, "s24.wav", s24));
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->samples, (std::vector<float>{0.5f, -0.5f}));
}

TEST(WavFile, RefusesWhatIsNotUsableWithAOneLineReason)
{
    QTemporaryDir dir;
    QByteArray noData = header(1, 1, 8000, 16, 0);
    noData.chop(8);
    const std::vector<std::pair<QString, const char *>> cases{
        {dir.filePath("missing.wav"), "missing.wav"},
        {writeFile(dir, "text.wav", "just some text, not audio"), "not a WAV file"},
        {writeFile(dir, "alaw.wav", header(6, 1, 8000, 8, 0)), "unsupported"},
        {writeFile(dir, "nodata.wav", noData), "no audio"}};
    for (const auto &[path, reason] : cases) {
        QString error;
        EXPECT_FALSE(WavFile::read(path, &error));
        EXPECT_TRUE(error.contains(reason) && !error.contains('\n')) << qPrintable(error);
    }

    // A payload cut short keeps the whole frames it has.
    const auto audio = WavFile::read(
        writeFile(dir, "short.wav", header(1, 2, 8000, 16, 400) + QByteArray(10, '\0')));
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->frames(), 2u);
}
