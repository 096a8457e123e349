#include "engines/parakeet/Vocabulary.h"

#include "engines/parakeet/ParakeetErrors.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace vocari {

namespace {

// The largest token id a vocab.txt may name; real vocabularies hold a few thousand pieces, and
// a bound keeps a corrupt file from asking for a huge array.
constexpr int64_t kMaxTextTokenId = 1 << 20;

// A decimal integer with an optional sign and nothing else, or none.
std::optional<int64_t> parseDecimal(QStringView text)
{
    if (text.isEmpty())
        return std::nullopt;
    qsizetype at = 0;
    bool negative = false;
    if (text[0] == u'+' || text[0] == u'-') {
        negative = text[0] == u'-';
        at = 1;
    }
    if (at == text.size())
        return std::nullopt;
    int64_t value = 0;
    for (; at < text.size(); ++at) {
        const char16_t c = text[at].unicode();
        if (c < u'0' || c > u'9')
            return std::nullopt;
        if (value > (INT64_MAX - (c - u'0')) / 10)
            return std::nullopt;
        value = value * 10 + (c - u'0');
    }
    return negative ? -value : value;
}

bool isSpecial(const QString &piece)
{
    return piece.startsWith(u'<') && piece.endsWith(u'>');
}

} // namespace

Vocabulary::Vocabulary(std::vector<QString> pieces, std::optional<int64_t> blankId)
    : m_pieces(std::move(pieces)), m_blankId(blankId)
{
}

Vocabulary Vocabulary::fromJson(const QByteArray &json, const QString &fileName)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError) {
        throw ModelLoadError(QStringLiteral("%1 is not valid JSON: %2 at offset %3.")
                                 .arg(fileName, error.errorString())
                                 .arg(error.offset));
    }
    if (!document.isObject())
        throw ModelLoadError(QStringLiteral("%1 is not a JSON object of strings.").arg(fileName));

    const QJsonObject object = document.object();
    std::vector<QString> pieces(size_t(object.size()));
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (!it.value().isString()) {
            throw ModelLoadError(QStringLiteral("%1 is not a JSON object of strings: the value "
                                                "of \"%2\" is not a string.")
                                     .arg(fileName, it.key()));
        }
        const auto id = parseDecimal(it.key());
        if (!id || *id < 0 || *id >= int64_t(pieces.size()))
            continue;
        pieces[size_t(*id)] = it.value().toString();
    }
    return Vocabulary(std::move(pieces));
}

Vocabulary Vocabulary::fromText(const QByteArray &text, const QString &fileName)
{
    std::vector<QString> pieces;
    std::optional<int64_t> blank;
    const QList<QByteArray> lines = text.split('\n');
    for (qsizetype index = 0; index < lines.size(); ++index) {
        const QString line = QString::fromUtf8(lines[index]).trimmed();
        if (line.isEmpty())
            continue;
        qsizetype space = line.size() - 1;
        while (space > 0 && line[space] != u' ' && line[space] != u'\t')
            --space;
        const auto id = space > 0 ? parseDecimal(QStringView(line).mid(space + 1)) : std::nullopt;
        if (!id || *id < 0 || *id > kMaxTextTokenId) {
            throw ModelLoadError(
                QStringLiteral("%1 line %2 is not a piece followed by its token id.")
                    .arg(fileName)
                    .arg(index + 1));
        }
        const QString piece = line.left(space).trimmed();
        if (*id >= int64_t(pieces.size()))
            pieces.resize(size_t(*id + 1));
        pieces[size_t(*id)] = piece;
        if (piece == QLatin1String("<blk>"))
            blank = *id;
    }
    if (!blank)
        throw ModelLoadError(QStringLiteral("%1 has no \"<blk>\" token.").arg(fileName));
    return Vocabulary(std::move(pieces), blank);
}

Vocabulary Vocabulary::load(const QString &path, Format format)
{
    const QString fileName = QFileInfo(path).fileName();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        throw ModelLoadError(
            QStringLiteral("%1 could not be read: %2.").arg(fileName, file.errorString()));
    }
    const QByteArray bytes = file.readAll();
    return format == Format::Json ? fromJson(bytes, fileName) : fromText(bytes, fileName);
}

QString Vocabulary::detokenize(std::span<const int64_t> tokens) const
{
    QString text;
    for (const int64_t token : tokens) {
        if (token < 0 || token >= size())
            continue;
        const QString &p = piece(token);
        if (!isSpecial(p))
            text += p;
    }
    text.replace(QChar(0x2581), QChar(u' '));

    qsizetype first = 0;
    qsizetype last = text.size();
    const auto horizontalSpace = [](QChar c) { return c == u' ' || c == u'\t'; };
    while (first < last && horizontalSpace(text[first]))
        ++first;
    while (last > first && horizontalSpace(text[last - 1]))
        --last;
    return text.mid(first, last - first);
}

} // namespace vocari
