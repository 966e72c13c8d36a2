// The product's texts for dates and times, all in the process's time zone.
//
// Those with a time follow the user's locale, calendar and clock as they are at the moment of the
// call: nothing is kept between calls. Every function may be called on any thread; a text that
// cannot be had is empty.
#pragma once

#include "Platform/Runtime/NSDate.h"
#include "Platform/Runtime/Text.h"

namespace Gantrel_Sync_Helper {

inline constexpr Platform::NSTimeInterval oneMinute = 60;
inline constexpr Platform::NSTimeInterval tenMinutes = 10 * oneMinute;

// Whether the user writes times on the 12-hour clock.
bool isAMPMFormat();

// "Saturday  5 March, 2016", in English whatever the user's locale. The year is that of the week,
// from Sunday to Saturday: a day at the end of December whose week reaches into January is of the
// next year.
Platform::Text compactDayNameAndDateString(const Platform::NSDate& date);

// "Sat 05 Mar, 2:07 PM" or "Sat 05 Mar, 14:07"
Platform::Text compactDayNameDateAndTimeForMenuIconApp(const Platform::NSDate& date);

// "2:07 PM" or "14:07"
Platform::Text hhmm(const Platform::NSDate& date);

// "5 Mar, 2:07 PM" or "5 Mar, 14:07"
Platform::Text dMMMhhmm(const Platform::NSDate& date);

}  // namespace Gantrel_Sync_Helper
