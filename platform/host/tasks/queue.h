#pragma once

#include <CoreServices/Multiprocessing.h>

// The last message of a task. Its queue reserves room for it when the task is created, so that it
// can be posted however full the queue is. Any thread.

// Reserves the room. Returns kMPInvalidIDErr or kMPInsufficientResourcesErr if it cannot.
OSStatus HostPromiseMessage(MPQueueID queue);
void HostWithdrawPromise(MPQueueID queue);
// Posts the message. Does nothing if the queue was deleted.
void HostPostPromised(MPQueueID queue, void* parameter1, void* parameter2, void* parameter3);
