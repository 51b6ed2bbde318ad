#include "App.h"
#include "Verbs.h"

void registerStatsVerbs(App* app) {
    Family family = app->family("stats", "What runs were like, and what is told of them");
    registerCollectVerb(&family);
}
