/* version_host.c - what the headers tell of their version is the version that the project is built
 * as. */
#include <stdio.h>
#include <string.h>
#include <zon.h>

int main(void) {
    char parts[32];
    snprintf(parts, sizeof parts, "%d.%d.%d", ZON_VERSION_MAJOR, ZON_VERSION_MINOR,
             ZON_VERSION_PATCH);
    if (strcmp(parts, ZON_VERSION_STRING) == 0 && strcmp(parts, BUILT_VERSION) == 0)
        return 0;
    printf("the parts say %s, the text says %s, the build says %s\n", parts, ZON_VERSION_STRING,
           BUILT_VERSION);
    return 1;
}
