/// \file
/// Error: the result of an operation that can fail.
#ifndef LXCLIENT_ERROR_H
#define LXCLIENT_ERROR_H

#include <QString>

#include <utility>

namespace lxclient {

/// Empty on success; otherwise what went wrong, in words for the user. Every operation of the
/// client and of its plugins that can fail for a reason the user is to read returns one, and gives
/// what it has made through its last argument, which is left as it was if it fails:
///
///     QStringList symbols;
///     if (const Error error = scanSymbols(files, symbols))
///         return error;
class [[nodiscard]] Error
{
public:
    /// Success.
    Error() = default;

    /// A failure, also if `words` is empty. Written so that a name and a colon can stand before it:
    /// "cannot be read: permission denied".
    explicit Error(QString words)
        : m_words(words.trimmed().isEmpty() ? QStringLiteral("no reason was given")
                                            : std::move(words))
    { }

    /// Whether something went wrong.
    explicit operator bool() const { return !m_words.isEmpty(); }

    /// Empty on success.
    const QString& words() const { return m_words; }

    /// The same, with the name of what it is about before it: "day.csv: cannot be read". A success
    /// stays one.
    Error about(const QString& name) const
    {
        return *this ? Error(name + QLatin1String(": ") + m_words) : Error();
    }

private:
    QString m_words;
};

} // namespace lxclient

#endif
