// Output: collects what is written to a device. Internal: not installed.
#ifndef LXOBSERVE_OUTPUT_H
#define LXOBSERVE_OUTPUT_H

#include <QIODevice>

#include <string>

namespace lxobserve {

// After the first failure nothing more is written.
class Output
{
public:
    explicit Output(QIODevice& device);

    // To be appended to; mayWrite() hands it on.
    std::string& buffer() { return m_buffer; }

    // Writes the buffer if it has grown large.
    void mayWrite();

    // Writes the rest. False, with the device's reason: not everything could be written.
    bool finish(QString* error);

private:
    void write();

    QIODevice& m_device;
    std::string m_buffer;
    bool m_failed = false;
};

} // namespace lxobserve

#endif
