// A library that compiled the inline accessors of the two singletons, as a plugin does.
#include <lxbase/MessageCenter.h>
#include <lxbase/MessageCommonManage.h>

extern "C" Q_DECL_EXPORT void* theCenter()
{
    return CMessageCenter::GetInstance();
}

extern "C" Q_DECL_EXPORT void* thePool()
{
    return CMessageCommonManage::GetInstance();
}
