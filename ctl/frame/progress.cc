#include "progress.h"

#include "mox/log.h"
#include "mox/misc.h"

bool log_level_given = false;

namespace
{

const uint64_t kEveryUs = 1000000;

double rate(const tarn_progress *p, uint64_t now)
{
    return now > p->start_us ? p->done * 1e6 / static_cast<double>(now - p->start_us) : 0.0;
}

} // namespace

void tarn_progress_begin(tarn_progress *p, const char *what, const char *unit, uint64_t total)
{
    uint64_t now = get_abs_time_us();
    *p = {what, unit, total, 0, now, now, log_level_given && __mox_log_level >= 2};
}

void tarn_progress_step(tarn_progress *p)
{
    p->done++;
    if (!p->on)
        return;
    uint64_t now = get_abs_time_us();
    if (now - p->last_us < kEveryUs)
        return;
    p->last_us = now;
    if (p->total != 0)
        mox_log(2, "%s: %llu of %llu %s, %.0f/s", p->what, static_cast<unsigned long long>(p->done),
                static_cast<unsigned long long>(p->total), p->unit, rate(p, now));
    else
        mox_log(2, "%s: %llu %s, %.0f/s", p->what, static_cast<unsigned long long>(p->done),
                p->unit, rate(p, now));
}

void tarn_progress_end(tarn_progress *p)
{
    if (!p->on)
        return;
    uint64_t now = get_abs_time_us();
    mox_log(2, "%s: %llu %s in %.1f s", p->what, static_cast<unsigned long long>(p->done), p->unit,
            (now - p->start_us) / 1e6);
}
