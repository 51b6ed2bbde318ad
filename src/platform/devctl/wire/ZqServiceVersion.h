#pragma once

/// The version of the drive service that this library is built for, and that the service built with it has.
constexpr const char* ZQ_SERVICE_VERSION = "3.4.10";
