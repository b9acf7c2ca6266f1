// A library in the place of the real one that drives the main queue of the example: with a block that submits many others before it
// returns, and with blocks that come while the client is given back. Each says its number when it runs.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "kestrova.h"

static kestrova_executor submit;

static void run_one(void* block) { printf("%d\n", (int)(intptr_t)block); }

static void run_many(void* block) {
  (void)block;
  for (int number = 1; number <= 1000; ++number) submit(NULL, run_one, (void*)(intptr_t)number);
  puts("submitted");
  fflush(stdout);
}

kestrova_status kestrova_start(const kestrova_options* options, kestrova_client** client) {
  alarm(20); /* a queue that waits for itself */
  submit = options->executor;
  *client = (kestrova_client*)&submit;
  return KESTROVA_OK;
}

kestrova_status kestrova_event(kestrova_client* client, const char* name, const char* data) {
  (void)client, (void)name, (void)data;
  submit(NULL, run_many, NULL);
  return KESTROVA_OK;
}

kestrova_status kestrova_flush(kestrova_client* client) { return (void)client, KESTROVA_OK; }

kestrova_status kestrova_submit_share(kestrova_client* client, const char* share) { return (void)client, (void)share, KESTROVA_OK; }

kestrova_status kestrova_release(kestrova_client* client) {
  (void)client;
  puts("released");
  for (int number = 1001; number <= 1003; ++number) submit(NULL, run_one, (void*)(intptr_t)number);
  return KESTROVA_OK;
}

const char* kestrova_status_name(kestrova_status status) { return status == KESTROVA_OK ? "KESTROVA_OK" : "another one"; }
