#include "publicInc/StatisticsText.h"

#include <memory>

#include <json/value.h>

#include "publicInc/ServiceHost.h"
#include "util/PublicUtil.h"
#include "util/Statistics.h"

namespace commonutil {

namespace {

Json::Value Number(Counter counter) { return static_cast<Json::UInt64>(Statistics::Read(counter)); }

// `refusals` names what a full ring costs.
Json::Value RingFigures(const MessageRing& ring, const char* refusals) {
  const MessageRing::Figures figures = ring.ReadFigures();
  Json::Value object(Json::objectValue);
  object["stored"] = static_cast<Json::UInt64>(figures.stored);
  object[refusals] = static_cast<Json::UInt64>(figures.refused);
  object["waiting"] = figures.waiting;
  object["highWater"] = figures.highWater;
  return object;
}

}  // namespace

std::string StatisticsText() {
  Json::Value all(Json::objectValue);
  all["version"] = ZEL_BUILD_VERSION;
  if (const std::shared_ptr<CommonUtilService> service = ServiceHost::GetInst().Pin()) {
    all["requests"] = RingFigures(service->PrimaryStore().Inbound(), "refused");
    all["replies"] = RingFigures(service->PrimaryStore().Outbound(), "dropped");
  }
  Json::Value& worker = all["worker"];
  // Run first: it is never more than pushed.
  const Json::UInt64 run = Statistics::Read(Counter::kCommandsRun);
  const Json::UInt64 pushed = Statistics::Read(Counter::kCommandsPushed);
  worker["run"] = run;
  worker["queued"] = pushed - run;
  worker["slow"] = Number(Counter::kCommandsSlow);
  all["database"]["operations"] = Number(Counter::kDatabaseOperations);
  all["database"]["failures"] = Number(Counter::kDatabaseFailures);
  all["proxy"]["probes"] = Number(Counter::kProxyProbes);
  all["proxy"]["through"] = Number(Counter::kProxyProbesThrough);
  all["tracking"]["events"] = Number(Counter::kTrackingEvents);
  all["tracking"]["refused"] = Number(Counter::kTrackingRefusals);
  return PublicUtil::Json2String(all);
}

}  // namespace commonutil
