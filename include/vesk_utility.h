// vesk_utility.h - the one header a firmware module includes for the whole interface of the
// utility layer (namespace vesk_soft).
#ifndef VESK_UTILITY_H
#define VESK_UTILITY_H

#include "vesk_utility_types.h"
#include "vesk_utility_core.h"
#include "vesk_utility_memory.h"
#include "vesk_utility_thread.h"
#include "vesk_utility_lock.h"
#include "vesk_utility_timer.h"
#include "vesk_utility_event.h"
#include "vesk_utility_av_types.h"
#include "vesk_utility_av.h"
#include "vesk_utility_media.h"
#include "vesk_utility_net.h"
#include "vesk_utility_sqlite.h"
#include "vesk_utility_file.h"
#include "vesk_utility_json.h"
#include "vesk_utility_system.h"
#include "vesk_utility_watch_dog.h"
#include "vesk_utility_xml.h"
#include "vesk_utility_picture.h"
#include "vesk_utility_codec.h"
#include "vesk_utility_url.h"
#include "vesk_utility_audio.h"
#include "vesk_utility_xls.h"
#include "vesk_utility_time.h"

#endif  // VESK_UTILITY_H
