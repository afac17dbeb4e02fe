#include <lxbase/LxbaseLog.h>

// Never destroyed: threads that the host forgot may put, and so log, while the process ends.
const QLoggingCategory& lcLxbase()
{
    static const auto* const category = new QLoggingCategory("lxbase");
    return *category;
}
