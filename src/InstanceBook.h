// Bookkeeping of device instances: who is there, and who waits to be deleted. Any thread.
#pragma once

#include "GevTLBase/IPCPipe/IMsgSrc.h"

#include <iosfwd>
#include <memory>

namespace zuGevDaemon {

class CDevInst;

/// The pipe's new-client callback: makes an instance for the client, then deletes those whose client has gone.
void OnClientConnect(std::shared_ptr<zuIPCPipe::IMsgSrc> client);

/// Puts an instance whose client has gone into the queue of those that wait for deletion, which owns it from then on.
void AddToGarbage(CDevInst* instance);

/// Takes an instance out of the list; absence is no error.
void RemoveInstance(CDevInst* instance);

/// Deletes all that wait, those too that come to wait meanwhile, but for instances that a call is still inside: they
/// wait for the next time.
void CollectGarbage();

/// Number of instances whose destructor doesn't run yet, those that wait for deletion among them.
std::size_t InstanceCount();

/// Writes the report of the status key. It counts the instances that it lists: one that is just being deleted is not
/// among them.
void PrintStatus(std::ostream& out);

} // namespace zuGevDaemon
