#pragma once

#include "SxString.h"

/// Figures as people read them. Safe from any thread.
namespace ZqReadable {

/// The whole number nearest to `n`, or the last one in 64 bits where that lies beyond.
int64 whole(double n);
/// Bytes in a readable unit, such as "1.5 GiB".
SxString bytes(double n);
/// Rounded up, as "13 MB" of 1,000,000 bytes each: what somebody has to make free.
SxString megabytes(uint64 nBytes);
/// A number with its digits in groups of three, such as "1,540".
SxString count(int64 n);
/// Milliseconds as seconds, such as "1.54 s".
SxString seconds(int64 ms);
/// The same in seconds, minutes or hours: "1.54 s", "25.7 min".
SxString duration(int64 ms);
/// Milliseconds since 1970 as a date, such as "2024-02-29 23:59 UTC".
SxString date(int64 ms);
/// The number with its noun: "1 block", "2 blocks".
SxString counted(int64 n, const char* one, const char* many);
/// What part of `whole` that is, in percent; 0 of nothing.
double percentage(uint64 part, int64 whole);

} // namespace ZqReadable
