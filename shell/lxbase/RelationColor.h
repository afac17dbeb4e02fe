/// \file
/// RelationColor_t: the colours of relation groups.
#ifndef LXBASE_RELATIONCOLOR_H
#define LXBASE_RELATIONCOLOR_H

/// Each colour is one group of plugin IDs per base ID and event type; the bus treats all alike.
/// What a colour means is the client's business, typically the link colour of a window.
enum RelationColor_t : int {
    RELATION_RED = 0,
    RELATION_ORANGE = 1,
    RELATION_YELLOW = 2,
    RELATION_GREEN = 3,
    RELATION_CYAN = 4,
    RELATION_BLUE = 5,
    RELATION_VIOLET = 6,
};

#endif
