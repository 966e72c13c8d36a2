// list, find and remove: what is registered, and by whom it is served.

#include <nlohmann/json.hpp>
#include <utility>

#include "Platform/Runtime/Escaped.h"
#include "Tools/AgentLog.h"
#include "Tools/Commands.h"
#include "Tools/Json.h"
#include "Tools/Listeners.h"
#include "Tools/Registry.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;
using Json = nlohmann::json;

namespace {

const Row heading = {{"IDENTIFIER"}, {"STATE"}, {"PROCESS"}, {"NAME"}, {"BUNDLE"}};

struct StateWords {
  const char* name;
  const char* colour;
  Status status;
};

StateWords wordsFor(ListenerState state) {
  switch (state) {
    case ListenerState::served:
      return {"served", green, Status::done};
    case ListenerState::notAnswering:
      return {"not answering", yellow, Status::notInTime};
    case ListenerState::gone:
      return {"gone", red, Status::gone};
  }
  return {};
}

Row rowOf(const Text& identifier, const Listener& listener) {
  const auto [state, colour, status] = wordsFor(listener.state);
  Row row = {{shown(identifier)}, {state, colour}, {"-"}, {"-"}, {"-"}};
  if (const auto& process = listener.process) {
    row[2].text = std::to_string(process->number);
    row[3].text = escaped(process->name);
    if (process->bundleIdentifier) row[4].text = shown(*process->bundleIdentifier);
  }
  return row;
}

Json jsonOf(const Text& identifier, const Listener& listener) {
  Json json = {{"identifier", identifier.utf8()},
               {"state", wordsFor(listener.state).name},
               {"process", nullptr}};
  if (const auto& process = listener.process) {
    json["process"] = {{"number", process->number}, {"name", process->name}, {"bundle", nullptr}};
    if (const auto& bundle = process->bundleIdentifier) json["process"]["bundle"] = bundle->utf8();
  }
  return json;
}

}  // namespace

Status list(const Request& request) {
  const auto identifiers = AgentLog::require(request.log)->registered();
  if (!identifiers) {
    fail(Status::noLog, "no line of the agent is in " + escaped(*request.log) + ".");
  }
  Registry registry(request.patience());
  const Listeners listeners;
  Json all = Json::array();
  std::vector<Row> rows;
  for (const Text& identifier : *identifiers) {
    const EndpointRef endpoint = registry.retrieve(identifier);
    if (!endpoint) continue;
    const Listener listener = listeners.behind(*endpoint);
    all.push_back(jsonOf(identifier, listener));
    rows.push_back(rowOf(identifier, listener));
  }
  request.asJson ? printText(written(all) + "\n") : printTable(heading, std::move(rows));
  return Status::done;
}

Status find(const Request& request) {
  const auto& identifier = request.identifier;
  const EndpointRef endpoint = Registry(request.patience()).require(identifier);
  const Listener listener = Listeners().behind(*endpoint);
  if (request.asJson) {
    printText(written(jsonOf(identifier, listener)) + "\n");
  } else {
    print(rowOf(identifier, listener));
  }
  return wordsFor(listener.state).status;
}

Status remove(const Request& request) {
  Registry registry(request.patience());
  return registry.remove(registry.require(request.identifier), request.identifier);
}

}  // namespace Gantrel_Sync_Helper
