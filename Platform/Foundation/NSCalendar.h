// NSCalendar: how points in time are counted in days, months and years.
#pragma once

#include <string>

#include "Platform/Foundation/NSLocale.h"

namespace Platform {

// A value. Any thread.
class NSCalendar {
 public:
  // Stands for the calendar that the user has whenever it is used: that of the user's locale.
  static NSCalendar autoupdatingCurrentCalendar() { return {}; }

  // The locale whose calendar and week rules these are at this moment.
  std::string localeIdentifier() const {
    return NSLocale::autoupdatingCurrentLocale().localeIdentifier();
  }

 private:
  NSCalendar() = default;
};

}  // namespace Platform
