/* A settings table: reads lines "name value" from standard input, where a later line replaces an
 * earlier one and a name alone removes it, and prints what is then set. */
#include "hash_table.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The table owns the copies: it frees the old one when a setting is replaced or removed. */
static int set(HASH_TABLE_ST* settings, const char* name, const char* value) {
    const size_t size = strlen(name) + strlen(value) + sizeof("=");
    char* copy = malloc(size);
    if (copy == NULL)
        return -1;
    snprintf(copy, size, "%s=%s", name, value);
    const int status = hash_table_put2(settings, name, copy, free);
    if (status != 0)
        free(copy);
    return status;
}

static int read_setting(HASH_TABLE_ST* settings, char* line) {
    const char* name = strtok(line, " \t\r\n");
    const char* value = strtok(NULL, "\r\n");
    if (name == NULL)
        return 0;
    if (value != NULL)
        value += strspn(value, " \t");
    if (value != NULL && *value != '\0')
        return set(settings, name, value);
    hash_table_rm(settings, name);
    return 0;
}

static int read_settings(HASH_TABLE_ST* settings) {
    char* line = NULL;
    size_t size = 0;
    int status = 0;
    while (status == 0 && getline(&line, &size, stdin) != -1)
        status = read_setting(settings, line);
    free(line);
    return ferror(stdin) ? -1 : status;
}

static int print_settings(const HASH_TABLE_ST* settings) {
    const int count = count_hash_table(settings);
    void** values = calloc((size_t)count + 1, sizeof(*values)); /* never of no size */
    if (values == NULL)
        return -1;
    const int listed = get_hash_table_value(settings, values, count);
    printf("%d settings\n", count);
    for (int i = 0; i < listed; ++i)
        printf("%s\n", (const char*)values[i]);
    free(values);
    return fflush(stdout) == 0 && !ferror(stdout) ? 0 : -1;
}

int main(void) {
    HASH_TABLE_ST* settings = hash_table_new();
    if (settings == NULL)
        return 1;
    int status = read_settings(settings);
    if (print_settings(settings) != 0)
        status = -1;
    hash_table_delete(settings);
    return status == 0 ? 0 : 1;
}
