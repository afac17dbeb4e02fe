#include "Recordings.h"

#include "QuoteText.h"

#include <QFileInfo>

#include <algorithm>
#include <utility>

using lxclient::Error;
using lxclient::Quote;

namespace {

constexpr int MaxLineBytes = 4096;

} // namespace

QuoteReader::QuoteReader(QIODevice& device, QString name, BadRowHandler onBadRow)
    : m_device(device)
    , m_name(std::move(name))
    , m_on_bad_row(std::move(onBadRow))
{ }

bool QuoteReader::readHeader()
{
    bool tooLong = false;
    QByteArray line = readLine(tooLong).value_or(QByteArray());
    if (line.startsWith("\xEF\xBB\xBF")) // the byte order mark that some editors leave
        line.remove(0, 3);
    return line == quotetext::Header;
}

std::optional<TimedQuote> QuoteReader::next()
{
    bool tooLong = false;
    while (const auto line = readLine(tooLong)) {
        if (line->isEmpty() && !tooLong)
            continue;
        Quote quote;
        const Error error = tooLong
            ? Error(QStringLiteral("longer than %1 bytes").arg(MaxLineBytes))
            : quotetext::parseRow(*line, quote);
        if (!error) {
            m_latest_ms = std::max(m_latest_ms.value_or(quote.time_ms), quote.time_ms);
            return TimedQuote{quote, *m_latest_ms};
        }
        if (m_first_bad_row.isEmpty())
            m_first_bad_row = QStringLiteral("line %1: %2").arg(m_line).arg(error.words());
        m_on_bad_row(QStringLiteral("%1:%2").arg(m_name).arg(m_line), error.words());
    }
    return {};
}

std::optional<QByteArray> QuoteReader::readLine(bool& tooLong)
{
    tooLong = false;
    QByteArray line = m_device.readLine(MaxLineBytes + 1);
    if (line.isEmpty())
        return {};
    ++m_line;
    while (!line.endsWith('\n')) {
        const QByteArray more = m_device.readLine(MaxLineBytes + 1);
        if (more.isEmpty())
            break;
        tooLong = true;
        line = more;
    }
    return tooLong ? QByteArray() : line.trimmed();
}

QuoteMerger::QuoteMerger(BadRowHandler onBadRow)
    : m_on_bad_row(std::move(onBadRow))
{ }

Error QuoteMerger::open(const QStringList& files)
{
    for (const QString& file : files) {
        if (const Error error = add(file)) {
            m_recordings.clear();
            return error.about(file);
        }
    }
    return {};
}

Error QuoteMerger::add(const QString& fileName)
{
    if (QFileInfo::exists(fileName) && !QFileInfo(fileName).isFile())
        return Error(QStringLiteral("is not a file; a recording is read twice"));
    auto file = std::make_unique<QFile>(fileName);
    if (!file->open(QIODevice::ReadOnly))
        return Error(QStringLiteral("cannot be read: %1").arg(file->errorString()));
    auto reader = std::make_unique<QuoteReader>(*file, fileName, m_on_bad_row);
    if (!reader->readHeader()) {
        return Error(QStringLiteral("is no recording, its first line is not \"%1\"")
                         .arg(QString::fromLatin1(quotetext::Header)));
    }
    auto head = reader->next();
    if (!head) {
        const QString& flaw = reader->firstBadRow();
        return Error(
            QStringLiteral("has no row that can be played; %1")
                .arg(flaw.isEmpty() ? QStringLiteral("its header is all there is") : flaw));
    }
    m_recordings.push_back({std::move(file), std::move(reader), std::move(head)});
    return {};
}

std::optional<TimedQuote> QuoteMerger::next()
{
    Recording* earliest = nullptr;
    for (Recording& recording : m_recordings) {
        if (recording.head && (!earliest || recording.head->due_ms < earliest->head->due_ms))
            earliest = &recording;
    }
    if (!earliest)
        return {};
    return std::exchange(earliest->head, earliest->reader->next());
}

Error scanSymbols(const QStringList& files, QStringList& symbols, const std::function<bool()>& stop)
{
    QuoteMerger recordings([](const QString&, const QString&) {});
    if (const Error error = recordings.open(files))
        return error;
    symbols.clear();
    constexpr int quotesBetweenQuestions = 1024;
    int quotes = 0;
    while (const auto timed = recordings.next()) {
        if (++quotes % quotesBetweenQuestions == 0 && stop && stop())
            break;
        if (!symbols.contains(timed->quote.symbol))
            symbols.append(timed->quote.symbol);
    }
    return {};
}
