#pragma once

#include <QFile>
#include <QString>
#include <QStringList>
#include <utility>
#include <vector>

namespace vocari::test {

// The folder the fixture generator wrote for these tests (model folders and the tone sentence).
QString fixturePath(const QString &name = {});

// The tone sentence: tones that the fixture networks decode to tokens, with pauses between
// words and a longer one between the two phrases.
struct ToneSentence
{
    QStringList phrases; // the text of each phrase
    QString text;        // all phrases joined by spaces
    QString repeatPiece; // the piece the repeating joint network emits
    int hop = 0;         // samples per feature frame
    int subsampling = 0; // feature frames per encoder frame

    static const ToneSentence &load();
    // The whole signal at rate Hz, mono.
    std::vector<float> samples(double rate = 16000) const;
    // One phrase alone, with 0.3 s of silence around it, at 16 kHz.
    std::vector<float> phrase(int index) const;

private:
    struct Segment
    {
        double frequency = 0; // 0: silence
        double seconds = 0;
    };
    std::vector<Segment> m_segments;
    std::vector<std::pair<double, double>> m_spans; // each phrase's tones, in seconds
    double m_amplitude = 0;
};

// A copy of a fixture model folder in a fresh temporary folder, to damage or rename files in.
class ModelCopy
{
public:
    explicit ModelCopy(const QString &fixture);
    ~ModelCopy();
    const QString &path() const { return m_path; }
    QString file(const QString &name) const;
    void write(const QString &name, const QByteArray &bytes) const;
    void remove(const QString &name) const { QFile::remove(file(name)); }
    void rename(const QString &from, const QString &to) const
    {
        QFile::rename(file(from), file(to));
    }

private:
    QString m_path;
};

} // namespace vocari::test
