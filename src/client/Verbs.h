#pragma once

class App;
class Family;

// Each verb family has a unit of its own that adds its verbs to the command line by one of these.

void registerImageVerbs(App* app);
/// Those verbs of the family `image` that publishers need.
void registerPublishVerbs(Family* image);
/// The one of the family `image` that moves blocks.
void registerOptimizeVerb(Family* image);
void registerContentVerbs(App* app);
void registerTraceVerbs(App* app);
void registerPatchVerbs(App* app);
void registerMountVerbs(App* app);
void registerLauncherVerbs(App* app);
void registerServeVerbs(App* app);
void registerRunVerbs(App* app);
void registerStatsVerbs(App* app);
/// The one of the family `stats` that shows what the machine is.
void registerHardwareVerb(Family* stats);
/// The one that looks at the runs of a fleet.
void registerCollectVerb(Family* stats);
void registerRemoveVerb(App* app);
void registerDoctorVerb(App* app);
/// The one that shows the user's settings.
void registerConfigVerb(App* app);
void registerCompletionVerbs(App* app);
