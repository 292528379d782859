#include "host/option_info.h"

namespace {

OptionInfo g_default_options;

}    // namespace

OptionInfo* g_option_info = &g_default_options;
