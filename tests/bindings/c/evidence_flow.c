/*
 * The evidence flow from C, against a running certification service: a report with an imported, signed
 * photo is sent, its statements and content go up, the service confirms it, its certificate comes down and
 * checks offline, the content comes back after it was lost, and the store keeps the result.
 *
 * Usage: evidence_flow BASE_URL CA_FILE TOKEN DATA_FOLDER PHOTO
 */
#define _POSIX_C_SOURCE 200809L /* clock_gettime */

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <kivsdk.h>

/* One completion's outcome, handed from the networking thread to main. */
typedef struct outcome {
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  int calls;
  int success;
  kiv_report* report;
  kiv_file* file;
  char message[512];
} outcome;

static void outcome_reset(outcome* o) {
  kiv_report_free(o->report);
  kiv_file_free(o->file);
  o->calls = 0;
  o->success = 0;
  o->report = NULL;
  o->file = NULL;
  o->message[0] = '\0';
}

static void outcome_finish(outcome* o, int success, const kiv_error* error) {
  pthread_mutex_lock(&o->mutex);
  o->calls += 1;
  o->success = success;
  if (error != NULL) snprintf(o->message, sizeof o->message, "%s", error->message);
  pthread_cond_signal(&o->changed);
  pthread_mutex_unlock(&o->mutex);
}

static void on_report(const kiv_report* report, const kiv_error* error, void* user_data) {
  outcome* o = user_data;
  if (report != NULL) kiv_report_copy(report, &o->report);
  outcome_finish(o, report != NULL && error == NULL, error);
}

static void on_file(const kiv_file* file, const kiv_error* error, void* user_data) {
  outcome* o = user_data;
  if (file != NULL) kiv_file_copy(file, &o->file);
  outcome_finish(o, file != NULL, error);
}

static void on_done(int success, const kiv_error* error, void* user_data) {
  outcome_finish(user_data, success, error);
}

static pthread_mutex_t progress_mutex = PTHREAD_MUTEX_INITIALIZER;
static int progress_reports = 0;
static void on_progress(const char* file_name, int64_t done, int64_t expected, void* user_data) {
  (void)user_data;
  pthread_mutex_lock(&progress_mutex);
  progress_reports += 1;
  pthread_mutex_unlock(&progress_mutex);
  printf("%s: %lld of %lld bytes\n", file_name, (long long)done, (long long)expected);
}

/* Waits for the completion, with a bound generous for a loaded machine; fails when it never comes. */
static int await_outcome(outcome* o, const char* what) {
  struct timespec until;
  int timed_out = 0;
  clock_gettime(CLOCK_REALTIME, &until);
  until.tv_sec += 120;
  pthread_mutex_lock(&o->mutex);
  while (o->calls == 0 && !timed_out) timed_out = pthread_cond_timedwait(&o->changed, &o->mutex, &until) != 0;
  pthread_mutex_unlock(&o->mutex);
  if (timed_out) {
    fprintf(stderr, "%s: no answer\n", what);
    return 0;
  }
  if (!o->success) fprintf(stderr, "%s failed: %s\n", what, o->message);
  return o->success;
}

/* Stops the program when a call fails, with the SDK's message. */
static void check(kiv_status status, const char* what) {
  if (status == KIV_OK) return;
  fprintf(stderr, "%s failed (%d): %s\n", what, (int)status, kiv_last_error()->message);
  exit(1);
}

/* Replaces `*report` with the one a completion brought. */
static void take_report(kiv_report** report, outcome* o) {
  kiv_report_free(*report);
  *report = o->report;
  o->report = NULL;
}

static char* read_file(const char* path) {
  FILE* in = fopen(path, "rb");
  char* text = NULL;
  long size;
  if (in == NULL) return NULL;
  if (fseek(in, 0, SEEK_END) == 0 && (size = ftell(in)) >= 0 && fseek(in, 0, SEEK_SET) == 0) {
    text = calloc((size_t)size + 1, 1);
    if (text != NULL && fread(text, 1, (size_t)size, in) != (size_t)size) {
      free(text);
      text = NULL;
    }
  }
  fclose(in);
  return text;
}

static int verify_offline(const kiv_report* report, const char* ca_file, const char* media_path) {
  char* ca_pem = read_file(ca_file);
  char* pdf = NULL;
  kiv_verifier* verifier = NULL;
  kiv_verification* verification = NULL;
  const char* const files[1] = {media_path};
  int passed = 0;
  size_t count = 0;
  size_t index;
  if (ca_pem == NULL) return 0;
  check(kiv_report_pdf_path(report, &pdf), "certificate path");
  check(kiv_verifier_new(ca_pem, &verifier), "verifier");
  check(kiv_verify(verifier, pdf, files, 1, &verification), "verification");
  check(kiv_verification_passed(verification, &passed), "verification result");
  check(kiv_verification_check_count(verification, &count), "checks");
  for (index = 0; index < count; ++index) {
    char* name = NULL;
    char* message = NULL;
    int holds = 0;
    check(kiv_verification_check_at(verification, index, &name, &holds, &message), "check");
    printf("%s %s: %s\n", holds ? "passed" : "FAILED", name, message);
    kiv_string_free(name);
    kiv_string_free(message);
  }
  kiv_verification_free(verification);
  kiv_verifier_free(verifier);
  kiv_string_free(pdf);
  free(ca_pem);
  return passed && count > 0;
}

/* Asks the service to check the content it holds against the digests now: the answer is its verdict. */
static kiv_proof_status checked_status(kiv_report** report, outcome* o) {
  kiv_proof_status status = KIV_PROOF_UNDEFINED;
  outcome_reset(o);
  check(kiv_force_status_update(*report, on_report, o), "status check");
  if (!await_outcome(o, "status check")) return KIV_PROOF_UNDEFINED;
  take_report(report, o);
  check(kiv_report_proof_status(*report, &status), "status");
  return status;
}

int main(int argc, char** argv) {
  outcome o;
  kiv_report_list* store = NULL;
  kiv_report* report = NULL;
  kiv_file* photo = NULL;
  char* local_path = NULL;
  char* hash_before = NULL;
  char* hash_after = NULL;
  const kiv_mail_list lists[] = {{"evidence-news", "News about evidence", 1}};
  if (argc != 6) {
    fprintf(stderr, "usage: evidence_flow BASE_URL CA_FILE TOKEN DATA_FOLDER PHOTO\n");
    return 2;
  }
  memset(&o, 0, sizeof o);
  pthread_mutex_init(&o.mutex, NULL);
  pthread_cond_init(&o.changed, NULL);

  check(kiv_set_application_data_directory(argv[4]), "data folder");
  check(kiv_use_service(argv[1], argv[2]), "service");
  check(kiv_setup(argv[3]), "set-up");
  check(kiv_store_load(&store), "store");
  check(kiv_report_new("Water damage, kitchen", &report), "report");
  check(kiv_import_signed_media_file(argv[5], report, store, KIV_IMPORT_COPY, &photo, NULL), "import");
  check(kiv_report_add_file(report, photo), "add file");
  check(kiv_report_calculate_hash(report), "digests");

  check(kiv_send(report, "en", on_report, &o), "send");
  if (!await_outcome(&o, "send")) return 1;
  take_report(&report, &o);
  outcome_reset(&o);
  check(kiv_send_statements(report, on_done, &o), "statements");
  if (!await_outcome(&o, "statements")) return 1;

  kiv_file_free(photo);
  check(kiv_report_file_at(report, 0, &photo), "sent file");
  outcome_reset(&o);
  check(kiv_upload_content(photo, report, on_progress, on_file, &o), "upload");
  if (!await_outcome(&o, "upload")) return 1;
  kiv_file_free(photo);
  photo = o.file;
  o.file = NULL;

  if (checked_status(&report, &o) != KIV_PROOF_CONFIRMED) {
    fprintf(stderr, "the service did not confirm the report\n");
    return 1;
  }
  outcome_reset(&o);
  check(kiv_generate_pdf(report, "en", on_done, &o), "certificate");
  if (!await_outcome(&o, "certificate")) return 1;

  check(kiv_file_local_path(photo, &local_path), "local path");
  if (!verify_offline(report, argv[2], local_path)) {
    fprintf(stderr, "the certificate did not verify\n");
    return 1;
  }

  check(kiv_file_hash(photo, &hash_before), "digest");
  if (remove(local_path) != 0) return 1;
  outcome_reset(&o);
  check(kiv_download_content(photo, on_progress, on_done, &o), "download");
  if (!await_outcome(&o, "download")) return 1;
  check(kiv_sha256_file(local_path, &hash_after), "digest of the download");
  if (strcmp(hash_before, hash_after) != 0) {
    fprintf(stderr, "the download is not the content: %s, not %s\n", hash_after, hash_before);
    return 1;
  }

  outcome_reset(&o);
  check(kiv_update_newsletters("me@example.com", "+44 20 7946 0000", lists, 1, "en", on_done, &o),
        "newsletters");
  if (!await_outcome(&o, "newsletters")) return 1;

  check(kiv_report_list_put(store, report), "store the report");
  check(kiv_store_persist(store), "persist");
  printf("confirmed, certified, verified; %d progress reports\n", progress_reports);

  outcome_reset(&o);
  kiv_string_free(hash_before);
  kiv_string_free(hash_after);
  kiv_string_free(local_path);
  kiv_file_free(photo);
  kiv_report_free(report);
  kiv_report_list_free(store);
  return 0;
}
