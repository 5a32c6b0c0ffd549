// Completion invokers. Each does nothing for an empty callback. All but InvokeForRequestResponse
// run the callback inline when the caller is on the main queue, else hand it to the main queue
// and wait for it; InvokeForRequestResponse always queues it.
#pragma once

#include <utility>

#include "quorvix/Executor.h"

namespace quorvix {

template <typename Callback, typename... Args>
void Invoke(const Callback& callback, Args&&... args) {
  if (!callback)
    return;
  runOnMainSync([&] { callback(std::forward<Args>(args)...); });
}

template <typename Callback, typename Error, typename Session>
void InvokeForSession(const Callback& callback, Error&& error, Session&& session) {
  Invoke(callback, std::forward<Error>(error), std::forward<Session>(session));
}

template <typename Callback, typename Error, typename Resource>
void InvokeForResource(const Callback& callback, Error&& error, Resource&& resource) {
  Invoke(callback, std::forward<Error>(error), std::forward<Resource>(resource));
}

template <typename Callback, typename Error, typename Device>
void InvokeForDevice(const Callback& callback, Error&& error, Device&& device) {
  Invoke(callback, std::forward<Error>(error), std::forward<Device>(device));
}

template <typename Callback, typename Error>
void InvokeForError(const Callback& callback, Error&& error) {
  Invoke(callback, std::forward<Error>(error));
}

template <typename Callback>
void InvokeForBool(const Callback& callback, bool value) {
  Invoke(callback, value);
}

// Copies the arguments into the queued task: the caller's are gone by the time it runs.
template <typename Callback, typename Error, typename Json, typename Response>
void InvokeForRequestResponse(const Callback& callback, Error error, Json json, Response response) {
  if (!callback)
    return;
  runOnMainAsync([callback, error = std::move(error), json = std::move(json),
                  response = std::move(response)]() mutable {
    callback(std::move(error), std::move(json), std::move(response));
  });
}

}  // namespace quorvix
