// Records and payloads that count how often they are made and destroyed.
#ifndef LXTEST_COUNTED_H
#define LXTEST_COUNTED_H

#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <QMetaType>

#include <atomic>
#include <utility>

namespace lxtest {

// `Record` with a ledger: a record that is not deleted leaves alive() above zero, one that is
// deleted twice below. The bus deletes through the virtual destructor of `Record`.
template<class Record>
class Counted : public Record
{
public:
    template<class... Args>
    explicit Counted(Args&&... args)
        : Record(std::forward<Args>(args)...)
    {
        ++s_made;
    }
    ~Counted() override { ++s_deleted; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    static int made() { return s_made; }
    static int alive() { return s_made - s_deleted; }

private:
    inline static std::atomic<int> s_made{0};
    inline static std::atomic<int> s_deleted{0};
};

using CountedMessage = Counted<CMessageCommon>;
using CountedEvent = Counted<CEventMessageCommon>;

// A payload for a QVariant that counts its instances, so that a test sees whether a queue item
// that holds one has been freed. Copies of the variant share one instance.
struct CountedPayload
{
    explicit CountedPayload(int number = 0)
        : value(number)
    {
        ++s_alive;
    }
    CountedPayload(const CountedPayload& other)
        : value(other.value)
    {
        ++s_alive;
    }
    CountedPayload& operator=(const CountedPayload&) = default;
    ~CountedPayload() { --s_alive; }

    static int alive() { return s_alive; }

    int value;

private:
    inline static std::atomic<int> s_alive{0};
};

} // namespace lxtest

Q_DECLARE_METATYPE(lxtest::CountedPayload)

#endif
