// The C interface of the client, for hosts in any language.
//
//     kestrova_options options = {.struct_size = sizeof options};
//     options.app_id = "com.example.app";
//     options.secret = "a secret of mine";
//     options.api_host = "localhost:8443";
//     kestrova_client* client;
//     if (kestrova_start(&options, &client) == KESTROVA_OK) kestrova_event(client, "opened", "{\"screen\": \"home\"}");
//
// Codes. No C++ exception leaves any function. What a caller does wrong is answered with a code, and nothing has been done then. A
// function that returns KESTROVA_OK has taken the call over; what becomes of it the server decides later, and the trace tells. The
// process ends, with the reason in the system log, only for what ends it in the C++ interface too: a fault inside a block that runs
// later.
//
// Threads. Any thread may call any function at any time, but for kestrova_start and kestrova_release, which say what they ask for.
// None waits for a network.
//
// Memory. Texts end with a zero byte and are copied before a function returns; the caller keeps what is its own. Texts that are
// given to a callback are the library's and good until the callback returns; they have a length too, because they may hold zero
// bytes.
//
// The layout of kestrova_options only grows, at its end, and numbers are not given twice: a program goes on working with a
// later library of the same SONAME without being compiled again.

#ifndef KESTROVA_H
#define KESTROVA_H

#include <stddef.h>
#include <stdint.h>

/* Before what the library shows. */
#define KESTROVA_API __attribute__((visibility("default")))

// NOLINTBEGIN(modernize-use-using, readability-identifier-naming): a C header has the forms and the names of C
#ifdef __cplusplus
extern "C" {
#endif

/* What a function answers. */
typedef enum kestrova_status {
  KESTROVA_OK = 0,
  KESTROVA_ERROR_NULL_ARGUMENT = 1,   /* something that must be there is a null pointer */
  KESTROVA_ERROR_BAD_OPTIONS = 2,     /* a size that this library does not know, an empty text, a number out of range */
  KESTROVA_ERROR_BAD_PATH = 3,        /* a path that is not absolute */
  KESTROVA_ERROR_BAD_UTF8 = 4,        /* text that is not well-formed UTF-8 */
  KESTROVA_ERROR_BAD_JSON = 5,        /* text that is not one JSON object, or is nested more than 512 deep */
  KESTROVA_ERROR_BAD_SHARE = 6,       /* a JSON object that is no share */
  KESTROVA_ERROR_ALREADY_STARTED = 7, /* a client is there that was not released */
  KESTROVA_ERROR_IN_CALLBACK = 8,     /* a function that must not be called from a callback was */
  KESTROVA_ERROR_NO_MEMORY = 9,
  KESTROVA_ERROR_REFUSED = 10,     /* the client cannot do it in the state that it is in */
  KESTROVA_ERROR_INTERNAL = 11,    /* a fault of the library */
  KESTROVA_ERROR_NOT_LAUNCHED = 12 /* this process was not launched for the end of uploads */
} kestrova_status;

/* The name of a code, as it stands above; "unknown status" for any other number. A constant. */
KESTROVA_API const char* kestrova_status_name(kestrova_status status);

/* The library's version, "MAJOR.MINOR.PATCH". A constant. */
KESTROVA_API const char* kestrova_version(void);

/* A started client. */
typedef struct kestrova_client kestrova_client;

/* Told of what the server answers: a JSON text of any kind. One call of these three at a time, on a thread of the library. */
typedef void (*kestrova_json_callback)(void* context, const char* json, size_t length);
/* Given each line of the trace, when debug is on. One call at a time, on the thread that the line comes from: be quick. */
typedef void (*kestrova_trace_callback)(void* context, const char* line, size_t length);

/* Told that all is done; on the main queue. */
typedef void (*kestrova_done_callback)(void* context);

/* A piece of the library's work for the main queue, to be run once by the function that comes with it. */
typedef void (*kestrova_run)(void* block);
/* The host's main queue in place of the library's thread. Called by any thread, perhaps by many at once: it puts `run` and `block`
   aside and returns; later, one after another in the order in which they came, the host calls run(block), once for each. A block
   that is never run is never freed. It and its context stay in use until the process ends. */
typedef void (*kestrova_executor)(void* context, kestrova_run run, void* block);

/* What a client is started with. Set it to zero, then struct_size, then what there is to say. */
typedef struct kestrova_options {
  size_t struct_size; /* sizeof(kestrova_options); all the rest may be zero where it does not say otherwise */

  const char* app_id;   /* the application's identifier, as the server knows it; names its folder. Must be there */
  const char* secret;   /* the application's API secret. Must be there */
  const char* api_host; /* host name, with :port where it is not 443. Must be there */

  const char* api_version;           /* "1" when null */
  const char* home_directory;        /* absolute; the application's folder lies below it. Null: the user's data folder */
  const char* transfer_directory;    /* absolute; the folder shared with the transfer service. Null: the user's */
  const char* transfer_service_path; /* absolute; the program kestrova-transferd. Null: beside this program, or on PATH */
  /* The command, an absolute path first and a null pointer last, that the transfer service launches this application with when
     uploads have ended and it is not running; it then calls kestrova_handle_launch. Null: it is not launched. */
  const char* const* launch_command;
  double request_timeout;      /* how long a request may go without progress, in seconds; 60 when 0 */
  uint64_t max_response_bytes; /* the longest answer that is taken; 16 MiB when 0 */
  int debug;                   /* not 0: messages are formatted and kept in the trace */

  void* context;                            /* handed to every function below */
  kestrova_json_callback on_user_id;        /* the identifier of the user */
  kestrova_json_callback on_app_identifier; /* the identifier of the application */
  kestrova_json_callback on_notifications;  /* a JSON array in all but odd cases: what the server sent, as it came */
  kestrova_trace_callback on_trace;         /* each line of the trace */
  kestrova_executor executor;               /* the main queue in the host's hand; null: a thread of the library's own */
} kestrova_options;

/* Starts the client and puts it at *client; a null pointer when the code is not KESTROVA_OK. Reads one small file.
   The client lives as long as the process, and there is one: starting again after kestrova_release gives the same one, with new
   callbacks; all else in the options is checked, but changes nothing. Not from a callback. */
KESTROVA_API kestrova_status kestrova_start(const kestrova_options* options, kestrova_client** client);

/* Gives the client back. When this returns no callback runs any more, nor will one; blocks that the executor holds must still be
   run. What was reported and not sent stays with the library, and is gone with the process: flush before. `client` is invalid from
   here on, in every thread. Not from a callback (KESTROVA_ERROR_IN_CALLBACK). */
KESTROVA_API kestrova_status kestrova_release(kestrova_client* client);

/* Reports an event. `data` is the text of a JSON object, or null for none. */
KESTROVA_API kestrova_status kestrova_event(kestrova_client* client, const char* name, const char* data);

/* Begins a new session: later events carry its identifier. */
KESTROVA_API kestrova_status kestrova_new_session(kestrova_client* client);

/* Starts a send of what waits on disk and in memory. Events leave ten at a time without it. */
KESTROVA_API kestrova_status kestrova_flush(kestrova_client* client);

/* Registers a share with the server, in at most two tries. `share` is the text of a JSON object in the form of
   docs/formats/share.md; {} is a share. */
KESTROVA_API kestrova_status kestrova_submit_share(kestrova_client* client, const char* share);

/* Uploads a GIF for a share in the background: the upload goes on when this process is gone. `path` is absolute. When this returns
   the host may delete its file. Touches the disk. Whether the file is there and could be linked is told by the trace. */
KESTROVA_API kestrova_status kestrova_upload_gif(kestrova_client* client, const char* path, const char* share);

/* For a process that was launched with launch_command: takes the ends of the uploads over, and calls `done` once when all of them
   are recorded, so that the process may end. KESTROVA_ERROR_NOT_LAUNCHED in any other process. */
KESTROVA_API kestrova_status kestrova_handle_launch(kestrova_client* client, kestrova_done_callback done, void* context);

/* Puts 1 at *enabled, or 0 when the server has switched the feature off; features are numbered from 0 to 63. */
KESTROVA_API kestrova_status kestrova_feature_enabled(kestrova_client* client, int feature, int* enabled);

#ifdef __cplusplus
}
#endif
// NOLINTEND(modernize-use-using, readability-identifier-naming)

#endif
