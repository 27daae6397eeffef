// vestra_ipc.h -- the client request service: answers the requests in the shared segment.
#pragma once

// Body of the thread "QXClientProcess": waits for requests and answers them until exit_flag is set, which it notices
// within about 5 s. Looks for a missing segment every 0.2 s. The argument is not used. Returns null.
void *client_request_process(void *arg);
