#include "Output.h"

namespace lxobserve {

namespace {

constexpr std::size_t WriteBytes = std::size_t(64) * 1024;

} // namespace

Output::Output(QIODevice& device)
    : m_device(device)
{
    m_buffer.reserve(WriteBytes + 4096);
}

void Output::mayWrite()
{
    if (m_buffer.size() >= WriteBytes)
        write();
}

bool Output::finish(QString* error)
{
    write();
    if (m_failed && error)
        *error = m_device.errorString();
    return !m_failed;
}

void Output::write()
{
    const auto size = static_cast<qint64>(m_buffer.size());
    m_failed = m_failed || m_device.write(m_buffer.data(), size) != size;
    m_buffer.clear();
}

} // namespace lxobserve
