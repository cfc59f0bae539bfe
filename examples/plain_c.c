/* A program in plain C that loads the library with dlopen(). The interface is two C functions and
   two tables of functions; a C++ compiler would lay them out just like this.
   plain_c LIBRARY ADDRESS PORT QUOTES SYMBOL */
#include <dlfcn.h>  /* dlopen, dlsym */
#include <stdint.h> /* uint16_t */
#include <stdio.h>  /* printf */
#include <stdlib.h> /* atoi */
#include <string.h> /* memcpy */
#include <unistd.h> /* read, write, pipe */

struct server {
  char label[16], ip[16];
  uint16_t port;
};
struct login {
  char user[16], password[33];
};

/* The client: its functions in the order of the header. The first two end a C++ object's life:
   destroy_client() below is what calls them. */
struct client {
  const struct client_functions {
    void (*end)(struct client*);
    void (*end_and_free)(struct client*);
    unsigned char (*connect_to_first)(struct client*, void* vector_of_servers, void* events);
    unsigned char (*connect)(struct client*, struct server*, void* events);
    int (*init_multicast)(struct client*, void* vector_of_groups, void* events);
    int (*log_in)(struct client*, struct login*);
    int (*query_symbols)(struct client*);
    int (*register_symbol)(struct client*, int type, const char* symbol);
    int (*unregister_symbol)(struct client*, int type, const char* symbol);
    void (*disconnect)(struct client*);
  } * call;
};

/* The callbacks: an object that begins with the address of its table, and what they need. */
struct events {
  const struct event_functions* call;
  struct client* client;
  const char* symbol;
  int quotes_left, wake; /* write end of the pipe on which main() waits */
};
struct event_functions {
  void (*end)(struct events*);
  void (*end_and_free)(struct events*);
  void (*connected)(struct events*);
  void (*disconnected)(struct events*);
  void (*login_result)(struct events*, unsigned char accepted, const char* reason);
  void (*quote)(struct events*, int type, const char* record);
  void (*log)(struct events*, int level, const char* text, int length);
  void (*registered)(struct events*, int type, const char* symbol, unsigned char done);
  void (*unregistered)(struct events*, int type, const char* symbol, unsigned char done);
  void (*symbol)(struct events*, int type, const char* symbol, unsigned char last);
};

static const char k_usage[] = "usage: plain_c LIBRARY ADDRESS PORT QUOTES SYMBOL";

enum { k_record_symbol = 9, k_record_last_price = 80, k_record_time = 204, k_level_error = 3 };

static void wake_main(const struct events* self, char why) {
  if (write(self->wake, &why, 1) != 1) perror("pipe");
}

static void on_end(struct events* self) { (void)self; }
static void on_connected(struct events* self) { (void)self; }
static void on_disconnected(struct events* self) { wake_main(self, 1); }
static void on_login_result(struct events* self, unsigned char accepted, const char* reason) {
  if (accepted) {
    self->client->call->register_symbol(self->client, '0', self->symbol);
  } else {
    fprintf(stderr, "login failed: %s\n", reason);
    wake_main(self, 1);
  }
}
static void on_quote(struct events* self, int type, const char* record) {
  double last;
  (void)type;
  if (self->quotes_left == 0) return;
  memcpy(&last, record + k_record_last_price, sizeof(last)); /* unaligned */
  printf("%s %s %g\n", record + k_record_time, record + k_record_symbol, last);
  if (--self->quotes_left == 0) wake_main(self, 0);
}
static void on_log(struct events* self, int level, const char* text, int length) {
  (void)self;
  if (level == k_level_error) fprintf(stderr, "%.*s\n", length, text);
}
static void on_symbol(struct events* self, int type, const char* symbol, unsigned char flag) {
  (void)self, (void)type, (void)symbol, (void)flag;
}

static const struct event_functions k_events = {
    on_end,   on_end, on_connected, on_disconnected, on_login_result,
    on_quote, on_log, on_symbol,    on_symbol,       on_symbol};

static char quotes_of(struct client* client, struct events* events, struct server* server,
                      int wake) {
  struct login login = {"user", "password"};
  char failed = 1;
  if (!client->call->connect(client, server, events)) return failed;
  if (client->call->log_in(client, &login) != 0 && read(wake, &failed, 1) != 1) perror("pipe");
  return failed;
}

int main(int argc, char** argv) {
  struct server server = {"", "", 0};
  struct events events = {&k_events, NULL, NULL, 0, -1};
  struct client* (*create_client)(void);
  void (*destroy_client)(struct client*);
  int ends[2];
  char failed;
  void* const library = argc == 6 ? dlopen(argv[1], RTLD_NOW) : NULL;
  if (library == NULL || pipe(ends) != 0) {
    fprintf(stderr, "%s\n", argc == 6 ? dlerror() : k_usage);
    return 2;
  }
  *(void**)&create_client = dlsym(library, "CreateKAVQuoteApi");
  *(void**)&destroy_client = dlsym(library, "DestroyKAVQuoteApi");
  snprintf(server.ip, sizeof(server.ip), "%s", argv[2]);
  server.port = (uint16_t)atoi(argv[3]);
  events.quotes_left = atoi(argv[4]);
  events.symbol = argv[5];
  events.wake = ends[1];
  events.client = create_client();
  failed = quotes_of(events.client, &events, &server, ends[0]);
  destroy_client(events.client); /* afterwards nothing of the library runs: it may be closed */
  dlclose(library);
  return failed;
}
/* Prints: 09:00:00 IF2509 3500.2 */
