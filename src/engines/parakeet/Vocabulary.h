#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vocari {

// Token id → text piece. Pieces mark a preceding space with "▁" (U+2581); pieces written in
// angle brackets are special tokens that never reach the text.
class Vocabulary
{
public:
    Vocabulary() = default;
    explicit Vocabulary(std::vector<QString> pieces, std::optional<int64_t> blankId = {});

    // A JSON object from decimal token ids to pieces ("parakeet_v3_vocab.json"). The array is
    // as long as the object has entries; keys that are not decimal integers or fall outside
    // that length are skipped, ids nobody names stay empty. Throws ModelLoadError naming
    // fileName when the text is not a JSON object of strings.
    static Vocabulary fromJson(const QByteArray &json, const QString &fileName);
    // Lines of "piece id" ("vocab.txt"); the piece "<blk>" is the blank. Throws ModelLoadError
    // naming fileName for a malformed line or a missing "<blk>".
    static Vocabulary fromText(const QByteArray &text, const QString &fileName);
    // Reads the file at path and parses it as JSON or as text.
    enum class Format
    {
        Json,
        Text
    };
    static Vocabulary load(const QString &path, Format format);

    int64_t size() const { return int64_t(m_pieces.size()); }
    const QString &piece(int64_t id) const { return m_pieces[size_t(id)]; }
    // The blank token named by the file itself, when the format names one.
    std::optional<int64_t> blankId() const { return m_blankId; }

    // Joins the pieces of the tokens: ids outside the vocabulary and special tokens are
    // dropped, "▁" becomes a space, and spaces and tabs are trimmed from both ends.
    QString detokenize(std::span<const int64_t> tokens) const;

private:
    std::vector<QString> m_pieces;
    std::optional<int64_t> m_blankId;
};

} // namespace vocari
