#include "kpi/StateMachine.h"

StateMachine::StateMachine(const KPICfg& cfg, KPISerializer& serializer) : KPI(cfg, serializer) {}

StateMachine::~StateMachine() = default;

int StateMachine::Aggregate(unsigned int) {
    return 0;
}

void StateMachine::ResetAggregates() {}

bool StateMachine::validCfg() {
    return true;
}

int StateMachine::Serialize() {
    return 0;
}

int StateMachine::AddStateTransistion(unsigned int, unsigned int) {
    return 0;
}
