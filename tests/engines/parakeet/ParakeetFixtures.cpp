#include "ParakeetFixtures.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace vocari::test {

QString fixturePath(const QString &name)
{
    const QDir root(QStringLiteral(VOCARI_PARAKEET_FIXTURES));
    return name.isEmpty() ? root.path() : root.filePath(name);
}

const ToneSentence &ToneSentence::load()
{
    static const ToneSentence sentence = [] {
        QFile file(fixturePath(QStringLiteral("sentence.json")));
        if (!file.open(QIODevice::ReadOnly))
            throw std::runtime_error("the fixture sentence.json is missing");
        const QJsonObject plan = QJsonDocument::fromJson(file.readAll()).object();
        ToneSentence s;
        for (const auto &phrase : plan["phrases"].toArray())
            s.phrases << phrase.toString();
        s.text = plan["text"].toString();
        s.repeatPiece = plan["repeatPiece"].toString();
        s.hop = plan["hop"].toInt();
        s.subsampling = plan["subsampling"].toInt();
        s.m_amplitude = plan["amplitude"].toDouble();
        for (const auto &span : plan["phraseSpans"].toArray())
            s.m_spans.emplace_back(span.toArray()[0].toDouble(), span.toArray()[1].toDouble());
        for (const auto &value : plan["segments"].toArray()) {
            const QJsonObject segment = value.toObject(); // silence has no tone
            s.m_segments.push_back(
                {segment["tone"].toDouble(),
                 segment[segment.contains("tone") ? "seconds" : "silence"].toDouble()});
        }
        return s;
    }();
    return sentence;
}

std::vector<float> ToneSentence::samples(double rate) const
{
    std::vector<float> out;
    for (const Segment &segment : m_segments) {
        const auto n = size_t(std::lround(segment.seconds * rate));
        for (size_t i = 0; i < n; ++i) {
            const double t = double(i) / rate;
            out.push_back(
                segment.frequency == 0
                    ? 0.0f
                    : float(m_amplitude * std::sin(2 * std::numbers::pi * segment.frequency * t)));
        }
    }
    return out;
}

std::vector<float> ToneSentence::phrase(int index) const
{
    const auto [start, end] = m_spans.at(size_t(index));
    const auto at = [](double seconds) { return std::ptrdiff_t(std::lround(seconds * 16000)); };
    const std::vector<float> all = samples();
    return {all.begin() + at(start - 0.3), all.begin() + at(end + 0.3)};
}

ModelCopy::ModelCopy(const QString &fixture)
{
    QTemporaryDir dir;
    dir.setAutoRemove(false);
    m_path = dir.path();
    const QDir source(fixturePath(fixture));
    for (const QString &name : source.entryList(QDir::Files))
        QFile::copy(source.filePath(name), QDir(m_path).filePath(name));
}

ModelCopy::~ModelCopy()
{
    QDir(m_path).removeRecursively();
}

QString ModelCopy::file(const QString &name) const
{
    return QDir(m_path).filePath(name);
}

void ModelCopy::write(const QString &name, const QByteArray &bytes) const
{
    QFile file(this->file(name));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

} // namespace vocari::test
