// Playing recordings: one by itself, or several as one.
#ifndef LXCLIENT_RECORDINGS_H
#define LXCLIENT_RECORDINGS_H

#include "QuoteSource.h"

#include <lxclient/Error.h>

#include <QFile>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

// Told of every row that is skipped: where ("FILE:LINE") and why.
using BadRowHandler = std::function<void(const QString& where, const QString& reason)>;

// Reads one recording from any device. A row that cannot be parsed is reported and skipped; empty
// lines are skipped silently.
class QuoteReader : public QuoteSource
{
public:
    // `device` is open, is not owned and outlives the reader; `name` is how messages call it.
    QuoteReader(QIODevice& device, QString name, BadRowHandler onBadRow);

    // Takes the first line, and says whether it is the header of a recording. Called first.
    bool readHeader();

    std::optional<TimedQuote> next() override;

    // The first row that was skipped, and why: "line 2: 4 fields expected, 1 found". Empty: none.
    const QString& firstBadRow() const { return m_first_bad_row; }

private:
    // A line without its end; nothing at the end, and an empty one with `tooLong` set if it exceeds
    // the limit.
    std::optional<QByteArray> readLine(bool& tooLong);

    QIODevice& m_device;
    const QString m_name;
    const BadRowHandler m_on_bad_row;
    int m_line = 0;
    QString m_first_bad_row;
    std::optional<qint64> m_latest_ms;
};

// Several recordings as one, ordered by the time at which the quotes are played; quotes of the same
// time come in the order of the files.
class QuoteMerger : public QuoteSource
{
public:
    explicit QuoteMerger(BadRowHandler onBadRow);

    // Opens the files, each of which has one good row at least. Called first, once; after an error
    // there is nothing to play.
    lxclient::Error open(const QStringList& files);

    std::optional<TimedQuote> next() override;

private:
    struct Recording
    {
        std::unique_ptr<QFile> file;
        std::unique_ptr<QuoteReader> reader;
        std::optional<TimedQuote> head;
    };

    lxclient::Error add(const QString& fileName);

    const BadRowHandler m_on_bad_row;
    std::vector<Recording> m_recordings;
};

// The symbols of recordings in the order of their first quotes; bad rows are left to the player.
// `stop` is asked now and then whether that is enough.
lxclient::Error scanSymbols(const QStringList& files, QStringList& symbols,
                            const std::function<bool()>& stop = {});

#endif
