// StateMachine: the aggregator of a KPI_STATE KPI.
//
// State KPIs are accepted by campaigns and count their samples and roll
// their windows like every KPI, but aggregate nothing yet: no record is ever
// emitted for them.
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
