// The tray loads this library only when a panel first opens its events menu: ICU, which only the
// menu's dates need, is then mapped at that moment instead of at every start.

#include "dates/DateText.h"
#include "platform/Export.h"

// A new writer in the user's locale and time zone, for the caller to delete.
extern "C" ALMANOR_EXPORT almanor::DateWriter* almanor_dates_make_writer() {
    return new almanor::DateText();
}
