#include "tests/faults/caller.h"

namespace kav_faults {

library linked_library() { return {CreateKAVQuoteApi, DestroyKAVQuoteApi}; }

}  // namespace kav_faults
