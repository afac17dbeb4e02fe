#include <lxmsg/MessageCommon.h>

CMessageCommon::~CMessageCommon() = default;
