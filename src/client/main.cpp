#include "App.h"
#include "Verbs.h"

int main(int argc, char** argv) {
    App app;
    registerImageVerbs(&app);
    registerContentVerbs(&app);
    registerTraceVerbs(&app);
    registerPatchVerbs(&app);
    registerMountVerbs(&app);
    registerLauncherVerbs(&app);
    registerServeVerbs(&app);
    registerRunVerbs(&app);
    registerStatsVerbs(&app);
    registerRemoveVerb(&app);
    registerDoctorVerb(&app);
    registerConfigVerb(&app);
    registerCompletionVerbs(&app);
    return app.run(argc, argv);
}
