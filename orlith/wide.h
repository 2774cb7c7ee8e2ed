// 128-bit integers: a compiler extension, named once.
#ifndef ORLITH_WIDE_H
#define ORLITH_WIDE_H

__extension__ typedef unsigned __int128 uint128;

#endif
