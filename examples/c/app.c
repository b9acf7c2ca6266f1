// A host in C99: reports an event and a share, runs the main queue itself, and prints what the server says until Enter is pressed.
//
//     cc -std=c99 app.c $(pkg-config --cflags --libs kestrova) -lpthread -o app && ./app [API-HOST]
#include <pthread.h>
#include <stdio.h>

#include "kestrova.h"

/* The main queue: blocks wait in a ring until the main loop takes them. */
#define MAX_BLOCKS 64
static struct {
  kestrova_run run;
  void* block;
} blocks[MAX_BLOCKS];
static int first_block, block_count, should_end;
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;

static void execute(void* context, kestrova_run run, void* block) {
  (void)context;
  pthread_mutex_lock(&mutex);
  while (block_count == MAX_BLOCKS) pthread_cond_wait(&changed, &mutex);
  blocks[(first_block + block_count) % MAX_BLOCKS].run = run;
  blocks[(first_block + block_count) % MAX_BLOCKS].block = block;
  ++block_count;
  pthread_cond_broadcast(&changed);
  pthread_mutex_unlock(&mutex);
}

static void run_main_queue(void) {
  pthread_mutex_lock(&mutex);
  while (!should_end) {
    if (block_count == 0) {
      pthread_cond_wait(&changed, &mutex);
      continue;
    }
    kestrova_run run = blocks[first_block].run;
    void* block = blocks[first_block].block;
    first_block = (first_block + 1) % MAX_BLOCKS;
    --block_count;
    pthread_cond_broadcast(&changed);
    pthread_mutex_unlock(&mutex);
    run(block);
    pthread_mutex_lock(&mutex);
  }
  pthread_mutex_unlock(&mutex);
}

static void* wait_for_enter(void* nothing) {
  (void)getchar();
  pthread_mutex_lock(&mutex);
  should_end = 1;
  pthread_cond_broadcast(&changed);
  pthread_mutex_unlock(&mutex);
  return nothing;
}

static void on_user_id(void* context, const char* json, size_t length) {
  (void)context;
  (void)length;
  printf("The server knows this user as %s\n", json);
  fflush(stdout);
}

static int succeeded(const char* what, kestrova_status status) {
  if (status != KESTROVA_OK) fprintf(stderr, "%s: %s\n", what, kestrova_status_name(status));
  return status == KESTROVA_OK;
}

int main(int argc, char** argv) {
  kestrova_options options = {.struct_size = sizeof options};
  options.app_id = "com.example.app";
  options.secret = "a secret of mine"; /* from wherever the host keeps its secrets */
  options.api_host = argc > 1 ? argv[1] : "localhost:8443";
  options.on_user_id = on_user_id;
  options.executor = execute;

  kestrova_client* client;
  if (!succeeded("start", kestrova_start(&options, &client))) return 1;
  int fine = succeeded("event", kestrova_event(client, "gif-viewed", "{\"gif\": \"g169a7\", \"loops\": 2}")) &&
             succeeded("flush", kestrova_flush(client)) &&
             succeeded("share", kestrova_submit_share(client, "{\"URL\": \"https://share.example.com/ab\"}"));

  pthread_t input;
  if (!fine || pthread_create(&input, NULL, wait_for_enter, NULL) != 0) return 1;
  puts("Press Enter to end.");
  fflush(stdout);
  run_main_queue();
  pthread_join(input, NULL);
  return succeeded("release", kestrova_release(client)) ? 0 : 1;
}
