// vem_time.cpp - the time of day, for people to read.
#include "vem/vem_time.h"

#include <array>
#include <cerrno>
#include <cstdio>

int vem_time_get_timespec(struct timespec* now) {
    if (now == nullptr) {
        return EINVAL;
    }
    return clock_gettime(CLOCK_REALTIME, now) == 0 ? 0 : errno;
}

const char* vem_time_format_system_default(const struct timespec* time, int zone, char* buf,
                                           size_t len) {
    if (time == nullptr || buf == nullptr) {
        return nullptr;
    }
    tm parts{};
    const tm* broken_down = nullptr;
    if (zone == VEM_TIME_FORMAT_TZONE_UTC) {
        broken_down = gmtime_r(&time->tv_sec, &parts);
    } else if (zone == VEM_TIME_FORMAT_TZONE_LOCAL) {
        broken_down = localtime_r(&time->tv_sec, &parts);
    }
    std::array<char, 48> date{};
    std::array<char, 48> zone_name{};
    if (broken_down == nullptr ||
        strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &parts) == 0 ||
        strftime(zone_name.data(), zone_name.size(), "%Z", &parts) == 0) {
        return nullptr;
    }
    const int written =
        std::snprintf(buf, len, "%s.%06ld %s", date.data(), time->tv_nsec / 1000, zone_name.data());
    return written > 0 && static_cast<size_t>(written) < len ? buf : nullptr;
}
