#include "deps/pellum/text_conversions.h"

namespace mirn {}
