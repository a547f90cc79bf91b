// StateMachine: the aggregator of a KPI_STATE KPI.
//
// State KPIs are accepted by campaigns, but the state logging call only
// checks the KPI's type and never reaches it: a state KPI holds no samples
// and no record is ever emitted for it.
//
// Owned by the collector's KPI table; called on the logging thread, no lock.
#pragma once

#include "kpi/KPI.h"

class StateMachine : public KPI {
  public:
    StateMachine(const KPICfg& cfg, KPISerializer& serializer);
    ~StateMachine() override;

    int Aggregate(unsigned int value) override;
    void ResetAggregates() override;
    bool validCfg() override;
    int Serialize() override;

    // Accepts a transition and records nothing. Returns 0.
    int AddStateTransistion(unsigned int from, unsigned int to);
};
