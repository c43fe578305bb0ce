#pragma once

#include <CoreServices/Multiprocessing.h>

// The last message of a task, for which its queue sets a place aside when the task is created: it
// must find room however full the queue is. Any thread.

// kMPInvalidIDErr, kMPInsufficientResourcesErr.
OSStatus HostPromiseMessage(MPQueueID queue);
void HostWithdrawPromise(MPQueueID queue);
// A deleted queue is passed over in silence.
void HostPostPromised(MPQueueID queue, void* parameter1, void* parameter2, void* parameter3);
