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
        for (const auto &phrase : plan[QLatin1String("phrases")].toArray())
            s.phrases << phrase.toString();
        s.text = plan[QLatin1String("text")].toString();
        s.repeatPiece = plan[QLatin1String("repeatPiece")].toString();
        s.hop = plan[QLatin1String("hop")].toInt();
        s.subsampling = plan[QLatin1String("subsampling")].toInt();
        s.m_amplitude = plan[QLatin1String("amplitude")].toDouble();
        for (const auto &value : plan[QLatin1String("segments")].toArray()) {
            const QJsonObject segment = value.toObject();
            if (segment.contains(QLatin1String("silence")))
                s.m_segments.push_back({0, segment[QLatin1String("silence")].toDouble()});
            else
                s.m_segments.push_back({segment[QLatin1String("tone")].toDouble(),
                                        segment[QLatin1String("seconds")].toDouble()});
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
    // Phrases are the runs of tones between silences of a second or more.
    std::vector<std::vector<Segment>> runs(1);
    for (const Segment &segment : m_segments) {
        if (segment.frequency == 0 && segment.seconds >= 1.0) {
            if (!runs.back().empty())
                runs.emplace_back();
            continue;
        }
        if (segment.frequency != 0 || !runs.back().empty())
            runs.back().push_back(segment);
    }
    ToneSentence part = *this;
    part.m_segments = {{0, 0.3}};
    for (const Segment &segment : runs.at(size_t(index)))
        part.m_segments.push_back(segment);
    part.m_segments.push_back({0, 0.3});
    return part.samples();
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
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(bytes);
}

void ModelCopy::remove(const QString &name) const
{
    QFile::remove(file(name));
}

void ModelCopy::rename(const QString &from, const QString &to) const
{
    QFile::rename(file(from), file(to));
}

} // namespace vocari::test

#include <QCoreApplication>
#include <QThread>

namespace vocari::test {

namespace {

struct CaptureState
{
    std::mutex lock;
    QByteArray category;
    QStringList lines;
    QtMessageHandler previous = nullptr;
};

CaptureState &captureState()
{
    static CaptureState state;
    return state;
}

} // namespace

LogCapture::LogCapture(const char *category)
{
    auto &state = captureState();
    std::lock_guard lock(state.lock);
    state.category = category;
    state.lines.clear();
    state.previous = qInstallMessageHandler(&LogCapture::handle);
}

LogCapture::~LogCapture()
{
    auto &state = captureState();
    QtMessageHandler previous;
    {
        std::lock_guard lock(state.lock);
        previous = state.previous;
    }
    qInstallMessageHandler(previous);
}

QStringList LogCapture::lines() const
{
    auto &state = captureState();
    std::lock_guard lock(state.lock);
    return state.lines;
}

void LogCapture::handle(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    auto &state = captureState();
    QtMessageHandler previous;
    {
        std::lock_guard lock(state.lock);
        if (context.category && state.category == context.category && type == QtInfoMsg)
            state.lines << message;
        previous = state.previous;
    }
    if (previous)
        previous(type, context, message);
}

bool eventually(const std::function<bool()> &condition, int seconds)
{
    for (int i = 0; i < seconds * 200; ++i) {
        if (condition())
            return true;
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }
    return condition();
}

} // namespace vocari::test
