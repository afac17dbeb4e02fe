#include "UnwrittenFile.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

using lxclient::Error;

namespace {

// In the order of JournalRow::Table.
const struct
{
    const char* name;
    int columns;
    QVector<int> whole_numbers; // columns with these
} tables[] = {
    {"executions", 7, {0, 2, 4}},
    {"positions", 4, {0, 2}},
};

bool parse(const QByteArray& line, JournalRow& row)
{
    QStringList parts;
    const QJsonArray array = QJsonDocument::fromJson(line).array();
    for (const QJsonValue& value : array) {
        if (!value.isString())
            return false;
        parts.append(value.toString());
    }
    if (parts.size() < 2)
        return false;
    const QString table = parts.takeFirst();
    row.started = parts.takeFirst();
    row.values = parts;
    row.table = table == QLatin1String(tables[JournalRow::Executions].name) ? JournalRow::Executions
                                                                            : JournalRow::Positions;
    bool good =
        table == QLatin1String(tables[row.table].name) && parts.size() == tables[row.table].columns;
    for (int i = 0; good && i < tables[row.table].whole_numbers.size(); ++i)
        parts[tables[row.table].whole_numbers[i]].toLongLong(&good);
    return good;
}

// The rows of an open file, one after the other.
UnwrittenFile::NextRow rowsOf(QFile& file)
{
    return [&file, number = 0](JournalRow& row) mutable {
        row = JournalRow();
        while (!file.atEnd()) {
            const QByteArray line = file.readLine();
            ++number;
            if (line.trimmed().isEmpty())
                continue;
            if (parse(line, row))
                return Error();
            return Error(QStringLiteral("is no row of a journal; repair the line, or take it out"))
                .about(QStringLiteral("%1:%2").arg(file.fileName()).arg(number));
        }
        return file.error() == QFileDevice::NoError
            ? Error()
            : Error(file.errorString()).about(file.fileName());
    };
}

bool isSameFile(int handle, const QString& name)
{
    struct stat opened = {};
    struct stat named = {};
    return ::fstat(handle, &opened) == 0 && ::stat(QFile::encodeName(name).constData(), &named) == 0
        && opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

// Opens the file and waits until nobody else has it. The lock goes with the handle. Whoever had it
// meanwhile may have removed it: then again.
bool openLocked(QFile& file, QIODevice::OpenMode mode)
{
    while (file.open(mode | QIODevice::ReadWrite)) {
        while (::flock(file.handle(), LOCK_EX) != 0) {
            if (errno != EINTR)
                return true; // a file system without locks
        }
        if (isSameFile(file.handle(), file.fileName()))
            return true;
        file.close();
    }
    return false;
}

// A disk that is full, or almost, takes a part; only then it says why not the rest.
bool writeAll(QFile& file, const QByteArray& bytes)
{
    qint64 written = 0;
    while (written < bytes.size()) {
        const qint64 more = file.write(bytes.constData() + written, bytes.size() - written);
        if (more <= 0)
            return false;
        written += more;
    }
    return true;
}

// So that a file that is new is found again after a power failure.
void syncFolderOf(const QString& fileName)
{
    const QByteArray folder = QFile::encodeName(QFileInfo(fileName).absolutePath());
    const int handle = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle >= 0) {
        ::fsync(handle);
        ::close(handle);
    }
}

} // namespace

UnwrittenFile::UnwrittenFile(QString fileName)
    : m_file_name(std::move(fileName))
{ }

// What has been written of rows that do not all fit is taken back. A last line without an end, left
// by a crash, is not continued.
Error UnwrittenFile::append(const QVector<JournalRow>& rows)
{
    QFile file(m_file_name);
    if (!openLocked(file, QIODevice::Unbuffered))
        return Error(QStringLiteral("cannot be written: %1").arg(file.errorString()))
            .about(m_file_name);
    const qint64 size = file.size();
    QByteArray bytes;
    if (size > 0 && file.seek(size - 1) && file.read(1) != "\n")
        bytes += '\n';
    for (const JournalRow& row : rows)
        bytes += lineOf(row);
    QString reason;
    if (!file.seek(size) || !writeAll(file, bytes))
        reason = file.errorString();
    else if (::fsync(file.handle()) != 0)
        reason = qt_error_string(errno);
    if (reason.isEmpty()) {
        if (size == 0)
            syncFolderOf(m_file_name);
        return {};
    }
    file.resize(size);
    if (size == 0)
        file.remove();
    return Error(QStringLiteral("cannot be written: %1").arg(reason)).about(m_file_name);
}

Error UnwrittenFile::drain(const std::function<Error(const NextRow& next)>& takeAll)
{
    QFile file(m_file_name);
    if (!openLocked(file, QIODevice::ExistingOnly)) {
        return QFileInfo::exists(m_file_name)
            ? Error(QStringLiteral("cannot be read: %1").arg(file.errorString())).about(m_file_name)
            : Error();
    }
    if (const Error error = takeAll(rowsOf(file)))
        return error;
    const bool gone = ::unlink(QFile::encodeName(m_file_name).constData()) == 0 || file.resize(0);
    return gone ? Error()
                : Error(QStringLiteral("has been taken in, but cannot be removed: %1")
                            .arg(file.errorString()))
                      .about(m_file_name);
}

Error UnwrittenFile::count(const QString& session, const QString& started, quint64& executions)
{
    quint64 counted = 0;
    QFile file(m_file_name);
    if (openLocked(file, QIODevice::ExistingOnly)) {
        const NextRow next = rowsOf(file);
        JournalRow row;
        for (;;) {
            if (const Error error = next(row))
                return error;
            if (row.values.isEmpty())
                break;
            counted += row.table == JournalRow::Executions && row.values.first() == session
                    && row.started == started
                ? 1
                : 0;
        }
    } else if (QFileInfo::exists(m_file_name)) {
        return Error(QStringLiteral("cannot be read: %1").arg(file.errorString()))
            .about(m_file_name);
    }
    executions = counted;
    return {};
}

QByteArray UnwrittenFile::lineOf(const JournalRow& row)
{
    QJsonArray array{QLatin1String(tables[row.table].name), row.started};
    for (const QString& value : row.values)
        array.append(value);
    return QJsonDocument(array).toJson(QJsonDocument::Compact) + '\n';
}
