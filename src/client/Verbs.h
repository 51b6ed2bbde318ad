#pragma once

class App;

// Each verb family has a unit of its own that adds its verbs to the command line by one of these.

void registerImageVerbs(App* app);
void registerContentVerbs(App* app);
void registerTraceVerbs(App* app);
void registerCompletionVerbs(App* app);
