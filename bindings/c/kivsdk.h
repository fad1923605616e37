/*
 * KivSDK's C interface: the evidence flow for hosts that are not C++ programs.
 *
 * Conventions
 * - Every fallible function returns a `kiv_status`: KIV_OK, or the kind of failure. The failure's text for
 *   people, the SDK's own message, is `kiv_last_error()->message` on the calling thread, until that thread's
 *   next call into the library.
 * - Handles (`kiv_report_list`, `kiv_report`, `kiv_file`, `kiv_verifier`, `kiv_verification`) are opaque and
 *   owned by the caller, who frees each with its `_free` function; the `_free` functions accept NULL. A
 *   handle may be used from any thread, but not from two threads at once.
 * - Strings are UTF-8 and NUL-terminated. A string the library returns through a `char **` parameter is the
 *   caller's, freed with `kiv_string_free`. Strings the caller passes are only read during the call. A NULL
 *   handle, a NULL string where one is required and text that is not UTF-8 fail with KIV_ERROR_ARGUMENT.
 * - Dates are seconds since 1970-01-01 UTC.
 * - Asynchronous operations take a completion and a `user_data` pointer handed back to it untouched. The
 *   completion is called exactly once: on the thread each function names, or on the calling thread before
 *   the function returns when the arguments are unusable (then with the argument error, which the function
 *   also returns). The only call that calls nothing is one without completion, which returns
 *   KIV_ERROR_ARGUMENT. Handles and errors passed to a completion are lent for the duration of the call:
 *   copy what must outlive it.
 */
#ifndef KIVSDK_H
#define KIVSDK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Errors ---- */

typedef enum kiv_status {
  KIV_OK = 0,
  /** A NULL handle or string, text that is not UTF-8, an index out of range, an unusable value. */
  KIV_ERROR_ARGUMENT = 1,
  /**
   * An error of domain "NSPOSIXErrorDomain", code errno: a file or folder that cannot be read or written, or
   * a name, file or report the SDK refuses (EINVAL, EEXIST) or cannot find (ENOENT).
   */
  KIV_ERROR_FILE = 2,
  /** The service could not be reached (domain "NSURLErrorDomain"). */
  KIV_ERROR_NETWORK = 3,
  /** The service answered, but not as expected (the networking layer's domain). */
  KIV_ERROR_SERVICE = 4,
  /** Data that cannot be read or written in its format (domain "NSCocoaErrorDomain"). */
  KIV_ERROR_DATA = 5,
  /** The service did not confirm the report's content (domain "KivCertificationErrorDomain"). */
  KIV_ERROR_CERTIFICATION = 6,
  /** Signing or checking provenance failed (domain "KivProvenanceErrorDomain"). */
  KIV_ERROR_PROVENANCE = 7,
  /** Anything else, out of memory included. */
  KIV_ERROR_INTERNAL = 8
} kiv_status;

/** A failure: its kind, the SDK's message, and the error's domain and code in that domain. */
typedef struct kiv_error {
  kiv_status status;
  const char* message;
  const char* domain;
  long code;
} kiv_error;

/**
 * The calling thread's last failure: set by every call that returns an error, left alone by calls that
 * succeed. NULL before the thread's first failure. Valid until the thread's next call into the library.
 */
const kiv_error* kiv_last_error(void);

/** Frees a string the library returned; NULL is ignored. */
void kiv_string_free(char* text);

/* ---- Set-up ---- */

/**
 * Makes `path` the folder of the application's data: the report store, the media folder ("Documents/Kiv/"),
 * the certificates ("Documents/PDFs/") and the device key. NULL restores the default folder,
 * `$XDG_DATA_HOME/<program name>` (`~/.local/share/<program name>` when XDG_DATA_HOME is unset). Call it
 * before anything else.
 */
kiv_status kiv_set_application_data_directory(const char* path);

/** Sets the application token that every request to the certification service carries. Call it once. */
kiv_status kiv_setup(const char* token);

/**
 * Talks to the certification service at `base_url` (https) instead of the one the SDK was built for,
 * trusting the authorities in `ca_file` (PEM; NULL for the SDK's usual ones) besides the system's.
 * Certificates are always verified. Call it before the first request.
 */
kiv_status kiv_use_service(const char* base_url, const char* ca_file);

/* ---- Digests ---- */

/** The SHA-256 of `size` bytes at `bytes`, as 64 lower-case hexadecimal digits, into `*hex`. */
kiv_status kiv_sha256_bytes(const void* bytes, size_t size, char** hex);

/** The SHA-256 of the file at `path` (read in blocks, never whole), into `*hex`. */
kiv_status kiv_sha256_file(const char* path, char** hex);

/* ---- Files ---- */

typedef struct kiv_file kiv_file;

typedef enum kiv_file_kind { KIV_FILE_UNKNOWN = 0, KIV_FILE_IMAGE = 1, KIV_FILE_VIDEO = 2 } kiv_file_kind;

/**
 * A file record for the media file `name`.`extension` in the media folder (see `kiv_file_local_path`),
 * taken at `date_taken`. Records of files brought in from elsewhere come from `kiv_import_media_file`.
 */
kiv_status kiv_file_new(const char* name, const char* extension, double date_taken, kiv_file** file);
kiv_status kiv_file_copy(const kiv_file* file, kiv_file** copy);
void kiv_file_free(kiv_file* file);

/** The name without extension, the file's identity in the media folder. */
kiv_status kiv_file_name(const kiv_file* file, char** name);
kiv_status kiv_file_extension(const kiv_file* file, char** extension);
kiv_status kiv_file_type(const kiv_file* file, kiv_file_kind* type);
kiv_status kiv_file_date_taken(const kiv_file* file, double* date_taken);
/** The description: for imported files, the original file name. NULL when there is none. */
kiv_status kiv_file_description(const kiv_file* file, char** description);
/** The SHA-256 of the content, NULL until calculated. */
kiv_status kiv_file_hash(const kiv_file* file, char** hash);
/** The service's identifier of the file, NULL until the service has accepted its report. */
kiv_status kiv_file_slug(const kiv_file* file, char** slug);
/** The address of the content on the service, NULL until uploaded. */
kiv_status kiv_file_remote_url(const kiv_file* file, char** url);
/** Where the content lives on this device, whether or not it is there. */
kiv_status kiv_file_local_path(const kiv_file* file, char** path);
/** Calculates the SHA-256 of the local content when the record has none. */
kiv_status kiv_file_calculate_hash(kiv_file* file);

/* ---- Reports ---- */

typedef struct kiv_report kiv_report;

typedef enum kiv_proof_status {
  KIV_PROOF_UNDEFINED = 0,
  KIV_PROOF_PENDING = 1,
  KIV_PROOF_CONFIRMED = 2,
  KIV_PROOF_FAILED = 3,
  KIV_PROOF_GETTING_CERTIFICATE = 4
} kiv_proof_status;

/**
 * A new report with a fresh id, created now, without files. Its name is also its certificate's file name, so
 * it must be one plain file name (else KIV_ERROR_FILE, EINVAL); see also `kiv_report_list_check_new_name`.
 */
kiv_status kiv_report_new(const char* name, kiv_report** report);
kiv_status kiv_report_copy(const kiv_report* report, kiv_report** copy);
void kiv_report_free(kiv_report* report);

kiv_status kiv_report_name(const kiv_report* report, char** name);
/** The local id (upper-case UUID text); NULL for a report read from the service alone. */
kiv_status kiv_report_id(const kiv_report* report, char** id);
kiv_status kiv_report_created(const kiv_report* report, double* created);
/** The service's identifier of the report, NULL until the service has accepted it. */
kiv_status kiv_report_slug(const kiv_report* report, char** slug);
/** The report's digest over its files' digests, NULL until calculated. */
kiv_status kiv_report_hash(const kiv_report* report, char** hash);
kiv_status kiv_report_note(const kiv_report* report, char** note);
/** Sets the note; NULL removes it. */
kiv_status kiv_report_set_note(kiv_report* report, const char* note);
/** Where the certificate goes; NULL when unset. */
kiv_status kiv_report_email(const kiv_report* report, char** email);
kiv_status kiv_report_set_email(kiv_report* report, const char* email);
kiv_status kiv_report_proof_status(const kiv_report* report, kiv_proof_status* status);
kiv_status kiv_report_file_count(const kiv_report* report, size_t* count);
/** A copy of the file at `index`. */
kiv_status kiv_report_file_at(const kiv_report* report, size_t index, kiv_file** file);
/** Adds a copy of `file` at the end. */
kiv_status kiv_report_add_file(kiv_report* report, const kiv_file* file);
/** Calculates every file's digest where missing and the report's digest over them. */
kiv_status kiv_report_calculate_hash(kiv_report* report);
/** Where `kiv_generate_pdf` puts the certificate, whether or not it is there. */
kiv_status kiv_report_pdf_path(const kiv_report* report, char** path);

/* ---- The report store ---- */

typedef struct kiv_report_list kiv_report_list;

kiv_status kiv_report_list_new(kiv_report_list** list);
void kiv_report_list_free(kiv_report_list* list);

/**
 * The reports kept on the device. The first load on a device sets the store up and finds no reports; a
 * store that cannot be read loads as empty. Load once at start-up, before the first persist.
 */
kiv_status kiv_store_load(kiv_report_list** list);
/** Replaces the reports kept on the device with `list`, atomically. */
kiv_status kiv_store_persist(const kiv_report_list* list);

kiv_status kiv_report_list_count(const kiv_report_list* list, size_t* count);
/** A copy of the report at `index`. */
kiv_status kiv_report_list_at(const kiv_report_list* list, size_t index, kiv_report** report);
/**
 * Puts a copy of `report` into the list: in place of the report it is (same slug, else same id, else same
 * name), or at the end.
 */
kiv_status kiv_report_list_put(kiv_report_list* list, const kiv_report* report);
kiv_status kiv_report_list_remove(kiv_report_list* list, size_t index);
/**
 * The index of the report `selector` names: its id (letter case ignored), slug or exact name, else a prefix
 * of its id. Fails (KIV_ERROR_FILE, ENOENT) when none matches, (KIV_ERROR_FILE, EINVAL) when several do.
 */
kiv_status kiv_report_list_find(const kiv_report_list* list, const char* selector, size_t* index);
/** Succeeds when `name` can name a new report beside those of `list`; else the error says why not. */
kiv_status kiv_report_list_check_new_name(const kiv_report_list* list, const char* name);

/* ---- Bringing media in ---- */

typedef enum kiv_import_flags {
  KIV_IMPORT_COPY = 0,
  /** Move the file into the media folder instead of copying it. */
  KIV_IMPORT_MOVE = 1
} kiv_import_flags;

/**
 * Copies (or moves) the photo or video at `path` into the media folder for `report` and answers its record,
 * digest included, in `*file`, for the caller to add to the report. The name is made from the file's last
 * change and never replaces evidence of `report` or of any report in `reports` (which may be NULL). Fails
 * for content the report holds already, an empty file, a file without extension; then nothing is placed.
 */
kiv_status kiv_import_media_file(const char* path, const kiv_report* report, const kiv_report_list* reports,
                                 int flags, kiv_file** file);

/**
 * `kiv_import_media_file`, then the device's signed statement about the file, kept with the report's
 * statements: its JWS into `*statement` when that is not NULL. Nothing is taken in when it cannot be signed.
 */
kiv_status kiv_import_signed_media_file(const char* path, const kiv_report* report,
                                        const kiv_report_list* reports, int flags, kiv_file** file,
                                        char** statement);

/* ---- The certification service ---- */

/** An operation's result: `report` on success, `error` on failure (the other is NULL). */
typedef void (*kiv_report_callback)(const kiv_report* report, const kiv_error* error, void* user_data);
/** An operation's result: `file` on success, `error` on failure (the other is NULL). */
typedef void (*kiv_file_callback)(const kiv_file* file, const kiv_error* error, void* user_data);
/**
 * An operation's result: `success` 1 and `error` NULL when it succeeded; `success` 0 and `error` NULL when
 * the service said no without an error; `success` 0 and `error` set when it failed.
 */
typedef void (*kiv_done_callback)(int success, const kiv_error* error, void* user_data);
/** Bytes of `file_name`'s content moved so far, and expected in all (-1 when not known). */
typedef void (*kiv_progress_callback)(const char* file_name, int64_t done, int64_t expected, void* user_data);

/**
 * Creates the report on the service, or updates it once it has a slug. The completion receives the service's
 * copy (slugs, status, files' storage). It runs on the networking thread.
 */
kiv_status kiv_send(const kiv_report* report, const char* language, kiv_report_callback completion,
                    void* user_data);
/** Refreshes the report's proof status (needs a slug). The completion runs on the networking thread. */
kiv_status kiv_update_status(const kiv_report* report, kiv_report_callback completion, void* user_data);
/**
 * Has the service check the report's content again (needs a slug). The completion runs on the networking
 * thread.
 */
kiv_status kiv_force_status_update(const kiv_report* report, kiv_report_callback completion, void* user_data);
/**
 * Uploads the file's local content to the service (both records need their slugs, from `kiv_send`). The
 * completion receives the file with its remote address. `progress` (may be NULL) is called a few times a
 * second; it and the completion run on the networking thread.
 */
kiv_status kiv_upload_content(const kiv_file* file, const kiv_report* report, kiv_progress_callback progress,
                              kiv_file_callback completion, void* user_data);
/**
 * Downloads the file's content from its remote address to its local path. `progress` (may be NULL) and the
 * completion run on the networking thread.
 */
kiv_status kiv_download_content(const kiv_file* file, kiv_progress_callback progress,
                                kiv_done_callback completion, void* user_data);
/**
 * Downloads the report's certificate (PDF) to `kiv_report_pdf_path`, replacing a file there (needs a slug).
 * The completion runs on the networking thread.
 */
kiv_status kiv_generate_pdf(const kiv_report* report, const char* language, kiv_done_callback completion,
                            void* user_data);

/**
 * The whole flow in one call: digests, send, upload of every file not on the service yet (with `progress`,
 * may be NULL, on the networking threads), then status checks once a second until the service confirms the
 * report or `timeout_seconds` pass. The completion receives the report as far as the flow took it, and the
 * error of the step that failed, or NULL when the report was confirmed; keep the report either way. It runs
 * on a thread of the flow's own.
 */
typedef void (*kiv_certify_callback)(const kiv_report* report, const kiv_error* error, void* user_data);
kiv_status kiv_certify(const kiv_report* report, const char* language, int timeout_seconds,
                       kiv_progress_callback progress, kiv_certify_callback completion, void* user_data);

/**
 * Sends the device's statements about the report's files to the service (needs a slug; the files must have
 * been imported with `kiv_import_signed_media_file`). The completion runs on the networking thread.
 */
kiv_status kiv_send_statements(const kiv_report* report, kiv_done_callback completion, void* user_data);

/** A newsletter and whether the user wants it. */
typedef struct kiv_mail_list {
  const char* name;
  const char* description;
  int subscribed;
} kiv_mail_list;

/**
 * Registers the user's e-mail (required), phone (may be NULL) and `count` newsletter choices. The completion
 * runs on the networking thread; the service's refusal is an error.
 */
kiv_status kiv_update_newsletters(const char* email, const char* phone, const kiv_mail_list* lists,
                                  size_t count, const char* language, kiv_done_callback completion,
                                  void* user_data);

/* ---- Offline verification ---- */

typedef struct kiv_verifier kiv_verifier;
typedef struct kiv_verification kiv_verification;

/** A verifier that trusts the certificate authorities in `ca_pem` (PEM text). */
kiv_status kiv_verifier_new(const char* ca_pem, kiv_verifier** verifier);
void kiv_verifier_free(kiv_verifier* verifier);

/**
 * Checks the certificate PDF at `pdf_path`, with no network, and each of `count` media files (paths of
 * files, or of folders whose files are taken) against it. A document that cannot be checked fails its
 * checks; only an unreadable `pdf_path` or bad arguments fail the call.
 */
kiv_status kiv_verify(const kiv_verifier* verifier, const char* pdf_path, const char* const* files,
                      size_t count, kiv_verification** verification);
void kiv_verification_free(kiv_verification* verification);

/** Whether every check holds (and there is at least one): 1 or 0. */
kiv_status kiv_verification_passed(const kiv_verification* verification, int* passed);
kiv_status kiv_verification_check_count(const kiv_verification* verification, size_t* count);
/**
 * The check at `index`: its name ("pdf-signature", "timestamp", "file:<name>"...), whether it holds, and a
 * sentence saying what was found. `name` and `message` may be NULL when not wanted.
 */
kiv_status kiv_verification_check_at(const kiv_verification* verification, size_t index, char** name,
                                     int* passed, char** message);
/** The certified report's slug, as the certificate states it. */
kiv_status kiv_verification_slug(const kiv_verification* verification, char** slug);

#ifdef __cplusplus
}
#endif

#endif /* KIVSDK_H */
