#include "quorvix/QRVAgent.h"

namespace quorvix {

std::optional<QRVAgent> QRVAgent::from(const Value* value) {
  if (!value || !value->isMap())
    return std::nullopt;
  const Value* id = value->find("id");
  const Value* name = value->find("name");
  if (!id || !id->asString() || !name || !name->asString())
    return std::nullopt;
  QRVAgent agent{*id->asString(), *name->asString(), std::nullopt};
  if (const Value* email = value->find("email"); email && email->asString())
    agent.email = *email->asString();
  return agent;
}

}  // namespace quorvix
