// list, find and remove: what is registered, and by whom it is served.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Tools/AgentLog.h"
#include "Tools/Commands.h"
#include "Tools/Json.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;
using Json = nlohmann::json;

namespace {

const Row heading = {{"IDENTIFIER"}, {"STATE"}, {"PROCESS"}, {"NAME"}, {"BUNDLE"}};

Cell stateCell(ListenerState state) {
  switch (state) {
    case ListenerState::served:
      return {"served", green};
    case ListenerState::notAnswering:
      return {"not answering", yellow};
    case ListenerState::gone:
      return {"gone", red};
  }
  return {};
}

Row rowOf(const Entry& entry) {
  Row row = {{shown(entry.identifier)}, stateCell(entry.listener.state), {"-"}, {"-"}, {"-"}};
  if (const auto& process = entry.listener.process) {
    row[2].text = std::to_string(process->number);
    row[3].text = escaped(process->name);
    if (process->bundleIdentifier) row[4].text = shown(*process->bundleIdentifier);
  }
  return row;
}

Json jsonOf(const Entry& entry) {
  Json json = {{"identifier", entry.identifier.utf8()},
               {"state", stateCell(entry.listener.state).text},
               {"process", nullptr}};
  if (const auto& process = entry.listener.process) {
    json["process"] = {{"number", process->number}, {"name", process->name}, {"bundle", nullptr}};
    if (const auto& bundle = process->bundleIdentifier) json["process"]["bundle"] = bundle->utf8();
  }
  return json;
}

}  // namespace

Status list(const Options& options) {
  std::string problem;
  const auto log = AgentLog::open(options.log, problem);
  if (!log) fail(Status::noLog, problem);
  if (!log->isOfUse()) {
    fail(Status::noLog, "no line of the agent is in " + escaped(*options.log) + ".");
  }
  auto identifiers = log->registered();
  std::sort(identifiers.begin(), identifiers.end());
  Registry registry(options.patience());
  const auto entries = registry.entries(identifiers);
  if (options.asJson) {
    Json all = Json::array();
    for (const Entry& entry : entries) all.push_back(jsonOf(entry));
    print({{written(all)}});
  } else {
    std::vector<Row> rows;
    for (const Entry& entry : entries) rows.push_back(rowOf(entry));
    printTable(heading, std::move(rows));
  }
  return Status::done;
}

Status find(const Options& options, const Text& identifier) {
  const auto entries = Registry(options.patience()).entries({identifier});
  if (entries.empty()) {
    fail(Status::notRegistered, "nothing is registered as " + shown(identifier) + ".");
  }
  if (options.asJson) {
    print({{written(jsonOf(entries[0]))}});
  } else {
    print(rowOf(entries[0]));
  }
  switch (entries[0].listener.state) {
    case ListenerState::served:
      return Status::done;
    case ListenerState::notAnswering:
      return Status::notInTime;
    case ListenerState::gone:
      return Status::gone;
  }
  return Status::done;
}

Status remove(const Options& options, const Text& identifier) {
  Registry registry(options.patience());
  registry.require(identifier);
  registry.remove(identifier);
  return Status::done;
}

}  // namespace Gantrel_Sync_Helper
