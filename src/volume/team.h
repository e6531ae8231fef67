// Team size of the volume operations' parallel regions.
#ifndef VEKR_VOLUME_TEAM_H
#define VEKR_VOLUME_TEAM_H

namespace vekr {

// The library-wide thread count may be anything from 1 to INT_MAX, and the
// OpenMP runtime aborts the process when it cannot create a requested team
// (a count of 2^16 does that on an ordinary machine). A team never gets more
// threads than there are work units (rows or planes) to hand out, nor more
// than kMaxVolumeTeam; the work split and the buffer shares are derived from
// the team actually formed, and every result is the same for any team size,
// so the cap changes nothing but the number of idle threads.
constexpr int kMaxVolumeTeam = 256;

inline int ownVolumeTeam(int requested, long long units) {
    long long n = requested < kMaxVolumeTeam ? requested : kMaxVolumeTeam;
    if (units < n) n = units;
    return n > 1 ? static_cast<int>(n) : 1;
}

}  // namespace vekr

#endif  // VEKR_VOLUME_TEAM_H
