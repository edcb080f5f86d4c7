/*
 * The doubles' journal, for the library doubles: one line per event, the
 * fields separated by TAB, with a backslash, TAB, line feed or carriage
 * return inside a field written as \\, \t, \n or \r (the format of the
 * pkgutil and launchctl doubles). The journal is $DOUBLES_STATE_DIR/journal,
 * else /var/db/doubles/journal; an event is dropped when it cannot be opened.
 */
#ifndef DOUBLE_JOURNAL_H
#define DOUBLE_JOURNAL_H

#include <stdio.h>
#include <stdlib.h>

static void doubleJournalField(FILE* journal, const char* field)
{
    for (const char* c = field; *c != '\0'; ++c) {
        switch (*c) {
        case '\\': fputs("\\\\", journal); break;
        case '\t': fputs("\\t", journal); break;
        case '\n': fputs("\\n", journal); break;
        case '\r': fputs("\\r", journal); break;
        default: fputc(*c, journal); break;
        }
    }
}

static void doubleJournal(const char* program, const char* event)
{
    const char* state = getenv("DOUBLES_STATE_DIR");
    if (state == NULL || *state == '\0') {
        state = "/var/db/doubles";
    }
    char path[4096];
    if (snprintf(path, sizeof path, "%s/journal", state) >= (int)sizeof path) {
        return;
    }
    FILE* journal = fopen(path, "a");
    if (journal == NULL) {
        return;
    }
    doubleJournalField(journal, program);
    fputc('\t', journal);
    doubleJournalField(journal, event);
    fputc('\n', journal);
    fclose(journal);
}

#endif
