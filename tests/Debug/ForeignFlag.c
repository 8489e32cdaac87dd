/* A library of another kind that happens to export the presence flag. */
int platformLibPresenceFlag = 1;
