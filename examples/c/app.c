// A host in C99: reports an event and a share, runs the main queue itself, and prints what the server says until Enter is pressed.
//
//     cc -std=c99 app.c $(pkg-config --cflags --libs kestrova) -lpthread -o app && ./app [API-HOST]
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include "kestrova.h"

/* The main queue: a list in which blocks wait until the main loop takes them. It grows, because a block may submit others, and
   nobody would run them while it waited for room. */
struct entry {
  kestrova_run run;
  void* block;
  struct entry* next;
};
static struct entry* first;
static struct entry** end = &first;
static int should_end;
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;

static void execute(void* context, kestrova_run run, void* block) {
  (void)context;
  struct entry* added = malloc(sizeof *added);
  if (!added) abort();
  *added = (struct entry){.run = run, .block = block};
  pthread_mutex_lock(&mutex);
  *end = added;
  end = &added->next;
  pthread_cond_signal(&changed);
  pthread_mutex_unlock(&mutex);
}

/* Waits for a block; null when the host is to end and none is left. */
static struct entry* next_entry(void) {
  pthread_mutex_lock(&mutex);
  while (!first && !should_end) pthread_cond_wait(&changed, &mutex);
  struct entry* next = first;
  if (next && !(first = next->next)) end = &first;
  pthread_mutex_unlock(&mutex);
  return next;
}

static void run_main_queue(void) {
  for (struct entry* entry; (entry = next_entry()) != NULL; free(entry)) entry->run(entry->block);
}

static void* wait_for_enter(void* nothing) {
  (void)getchar();
  pthread_mutex_lock(&mutex);
  should_end = 1;
  pthread_cond_signal(&changed);
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
  if (!succeeded("release", kestrova_release(client))) return 1;
  run_main_queue(); /* the blocks that came until then hold memory of the library */
  return 0;
}
