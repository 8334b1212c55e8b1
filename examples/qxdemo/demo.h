/* One demonstration per family; each returns 0 when everything worked. */
#ifndef QXDEMO_DEMO_H
#define QXDEMO_DEMO_H

/* Joins the samples directory and a file name into a static buffer. */
const char *demo_sample(const char *name);

int demo_strings(void);
int demo_json(void);
int demo_codecs(void);
int demo_ini(void);
int demo_config(void);
int demo_files(void);
int demo_osinfo(void);
int demo_service(void);

#endif
