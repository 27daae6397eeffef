// vestra_ipc.h -- the client request service: answers what client processes ask through the shared request segment.
#pragma once

// Body of the thread "QXClientProcess": waits for requests and answers them until exit_flag is set; a wait ends within
// about 5 s. A missing segment is looked for again every 0.2 s. The argument is not used. Returns null.
void *client_request_process(void *arg);
