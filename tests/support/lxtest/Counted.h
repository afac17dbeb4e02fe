// Records and payloads that count how often they are made and destroyed.
#ifndef LXTEST_COUNTED_H
#define LXTEST_COUNTED_H

#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <QMetaType>

#include <atomic>

namespace lxtest {

// Counts the objects of a class that derives from it: one that is not destroyed leaves alive()
// above zero, one that is destroyed twice below.
template<class What>
class Counts
{
public:
    Counts() { ++s_made; }
    Counts(const Counts&) { ++s_made; }
    Counts& operator=(const Counts&) = default;
    ~Counts() { ++s_destroyed; }

    static int made() { return s_made; }
    static int alive() { return s_made - s_destroyed; }

private:
    inline static std::atomic<int> s_made{0};
    inline static std::atomic<int> s_destroyed{0};
};

// The bus destroys them through the virtual destructors of their bases.
struct CountedMessage : CMessageCommon, Counts<CountedMessage>
{
    using CMessageCommon::CMessageCommon;
};
struct CountedEvent : CEventMessageCommon, Counts<CountedEvent>
{
    using CEventMessageCommon::CEventMessageCommon;
};

// For a QVariant, so that a test sees whether a queue item that holds one has been freed. Copies of
// the variant share one object.
struct CountedPayload : Counts<CountedPayload>
{
    explicit CountedPayload(int number = 0)
        : value(number)
    { }

    int value;
};

} // namespace lxtest

Q_DECLARE_METATYPE(lxtest::CountedPayload)

#endif
