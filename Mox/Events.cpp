#include "Mox/Events.h"

#include "Vel/describe/Module.h"

VEL_MODULE(Events, 612aea80d211399c, Mox::Event, Mox::Count, Mox::EventOrCount, Mox::ConditionOrChanged,
    Mox::ConditionStat, Mox::EventStat, Mox::CountStat, Mox::EventOrCountStat, Mox::ConditionOrCountStat,
    Mox::ConditionOrChangedStat, Mox::CountOrChangedStat);
