#pragma once

#include "text/TidyServer.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <chrono>
#include <memory>
#include <optional>

namespace vocari {

// Tidies a finished dictation before it is inserted, in two stages. The rules remove
// hesitation sounds (um, uh, erm, euh, hmm in any stretched form), collapse accidentally
// repeated words and repair spacing and doubled punctuation. Then, where the user has a
// language-model server, its model cleans up false starts, punctuation and capitalisation; a
// reply that is late, empty or of implausible length is not used. Made for one dictation, at
// its key press, so that the model loads while the user speaks, and dropped at its end.
class Polisher
{
public:
    // The rules stage alone.
    Polisher() = default;
    // With the model stage on the server: asks it for its models at once, and has it load
    // `model` (empty: the first it lists). A server that does not answer within
    // kAvailabilityLimit is not used for this dictation.
    Polisher(std::shared_ptr<TidyServer> server, QString model);
    ~Polisher();
    Polisher(const Polisher &) = delete;
    Polisher &operator=(const Polisher &) = delete;

    // The tidied text. Never fails: whatever cannot be improved is returned as the rules left it.
    QCoro::Task<QString> polish(QString text);

    // What the model is told, once, before the text.
    static const QString instruction;
    static constexpr std::chrono::milliseconds kAvailabilityLimit{300};
    // How long the model may take: the word count ÷ 50 plus 2 seconds, at most 5 seconds.
    static std::chrono::milliseconds timeLimit(qsizetype words);
    // Words: pieces between single spaces, empty ones not counted.
    static qsizetype wordCount(const QString &text);
    // Whether a reply is of a length a cleaned copy of the text can have.
    static bool plausible(const QString &reply, const QString &cleaned);

    // The rules stage on its own: fillers, repeated words, spacing before punctuation, runs of
    // white space, a period doubled after a sentence mark, then trimming.
    static QString applyRules(const QString &text);

private:
    QCoro::Task<std::optional<TidyServer::Listing>> findServer();

    std::shared_ptr<TidyServer> m_server;
    QString m_model;
    std::optional<QCoro::Task<std::optional<TidyServer::Listing>>> m_listing;
};

} // namespace vocari
