/* A settings table: reads lines "name value" from standard input, where a later line replaces an
 * earlier one and a name alone removes it, and prints what is then set. */
#include "hash_table.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { LINE_SIZE = 256, SHOWN = 64 };

/* The table owns the copies: it frees the old one when a setting is replaced or removed. */
static int set(HASH_TABLE_ST* settings, const char* name, const char* value) {
    char* copy = malloc(LINE_SIZE);
    if (copy == NULL)
        return -1;
    snprintf(copy, LINE_SIZE, "%s=%s", name, value);
    const int status = hash_table_put2(settings, name, copy, free);
    if (status != 0)
        free(copy);
    return status;
}

static int read_line(HASH_TABLE_ST* settings, char* line) {
    const char* name = strtok(line, " \t\n");
    const char* value = strtok(NULL, "\n");
    if (name == NULL)
        return 0;
    if (value != NULL)
        return set(settings, name, value);
    hash_table_rm(settings, name);
    return 0;
}

int main(void) {
    HASH_TABLE_ST* settings = hash_table_new();
    if (settings == NULL)
        return 1;
    char line[LINE_SIZE];
    int status = 0;
    while (status == 0 && fgets(line, sizeof(line), stdin) != NULL)
        status = read_line(settings, line);

    void* shown[SHOWN];
    const int count = get_hash_table_value(settings, shown, SHOWN);
    printf("%d settings\n", (int)count_hash_table(settings));
    for (int i = 0; i < count; ++i)
        printf("%s\n", (const char*)shown[i]);
    hash_table_delete(settings);
    return status == 0 ? 0 : 1;
}
