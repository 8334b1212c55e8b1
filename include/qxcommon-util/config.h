/* Key=value configuration files.
 *
 * configfile_load hands back the non-empty lines of a file as a plain linked
 * list and leaves their meaning to the caller. qx_config_reader reads
 * "name = value" lines into a set of pairs and answers lookups, including a
 * yes/no interpretation. */
#ifndef QXCOMMON_UTIL_CONFIG_H
#define QXCOMMON_UTIL_CONFIG_H

#include <qxcommon-util/containers.h>
#include <qxcommon-util/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One line of configfile_load's list, in file order. */
typedef struct configfile_line {
    struct configfile_line *next; /* NULL at the end */
    char *text;                   /* owned, NUL-terminated */
} configfile_line;

/* The pairs of one or more files read with qx_config_reader_read_config. */
typedef struct qx_config_reader {
    qx_properties *properties; /* made with ownership: frees its strings */
} qx_config_reader;

/* Reads the file in pieces of at most 1000 bytes (a longer line becomes
 * several entries), cuts each at its first CR or LF and keeps it unless it
 * is then empty: blank-only and comment lines are kept as they are. Returns
 * the first line, or NULL when the file cannot be opened (or path is NULL)
 * or has no non-empty line. When memory runs out, "fatal: out of memory" goes to
 * syslog at LOG_ERR and the lines read so far are returned. Release the
 * list with free_config. */
QX_API configfile_line *configfile_load(const char *path);
/* Frees every line and its text. NULL is allowed. */
QX_API void free_config(configfile_line *first);

/* A reader with an empty set; NULL when an allocation fails (nothing leaks). */
QX_API qx_config_reader *qx_config_reader_new(void);
/* Frees the set with all its strings, and the record. NULL is allowed. */
QX_API void qx_config_reader_delete(qx_config_reader *reader);
/* Adds the pairs of the file to those already held. Each line is trimmed;
 * empty lines and lines starting with "#" are skipped; a line is used only
 * when "=" cuts it into exactly two fields (so a value cannot contain "="),
 * whose trimmed texts become name and value. Other lines are ignored
 * silently, and so is a line that cannot be copied for lack of memory.
 * The set is not emptied first, and with duplicate names the pair read
 * first wins. Results: 0 success; -1 path is NULL or the file reader cannot
 * be created; -3 the file cannot be opened; -4 closing it failed. On every
 * failure no pair of this file is added and those already held stay. */
QX_API int qx_config_reader_read_config(qx_config_reader *reader, const char *path);
/* The value of the first pair with that name (owned by the reader), or NULL
 * when there is none or name is NULL. With duplicate names the first read
 * wins. */
QX_API char *qx_config_reader_get_property(const qx_config_reader *reader, const char *name);
/* 1 for "y", "yes", "1"; 0 for "n", "no", "0" and the empty value; compared
 * exactly and case-sensitively. -1 name is NULL; -2 no such name; -3 any
 * other value ("Yes", "true", ...). */
QX_API int qx_config_reader_get_bool_property(const qx_config_reader *reader, const char *name);

#ifdef __cplusplus
}
#endif

#endif
