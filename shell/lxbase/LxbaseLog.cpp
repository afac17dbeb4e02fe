#include <lxbase/LxbaseLog.h>

Q_LOGGING_CATEGORY(lcLxbase, "lxbase")
