#include "display/layoutconstants.h"

#define ARBO_DEFINE_LAYOUT_CONSTANT(name, initial) int name = initial;
ARBO_LAYOUT_CONSTANTS(ARBO_DEFINE_LAYOUT_CONSTANT)
#undef ARBO_DEFINE_LAYOUT_CONSTANT

const std::vector<LayoutConstants::Entry>& LayoutConstants::all()
{
#define ARBO_LAYOUT_ENTRY(name, initial) {#name, &name, initial},
    static const std::vector<Entry> ENTRIES = {ARBO_LAYOUT_CONSTANTS(ARBO_LAYOUT_ENTRY)};
#undef ARBO_LAYOUT_ENTRY
    return ENTRIES;
}

void LayoutConstants::resetToDefaults()
{
    for (const Entry& entry : all()) {
        *entry.value = entry.initial;
    }
}
