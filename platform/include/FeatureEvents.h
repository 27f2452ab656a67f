/// @file
/// The events between a software-update controller and a peripheral loader feature, all of type EUserEvent.
#pragma once

#include <cstddef>

#include "Types.h"

/// What is said, and who says it to whom: the payload stands behind the colon.
enum TFeatureEventId : TUint32 {
  EFeatureAnnounce = 200,  ///< feature to controller, once: the feature id's characters
  EPrepareRequest = 201,   ///< controller to feature: the feature id's characters
  EPrepareResult = 202,    ///< feature to controller: TFeatureResultPayload
  EInstallRequest = 203,   ///< controller to feature: the feature id's characters
  EInstallResult = 204,    ///< feature to controller: TFeatureResultPayload
  EInstallProgress = 205,  ///< feature to controller: TFeatureProgressPayload
  EAbortRequest = 206,     ///< controller to every feature: payload not examined
  EAbortResult = 207,      ///< feature to controller: TFeatureResultPayload
};

/// Bytes of a payload's feature id field: zero-terminated, the rest filled with zeros.
constexpr std::size_t KFeatureIdFieldSize = 64;

/// A result, in the processor's byte order.
struct __attribute__((packed)) TFeatureResultPayload {
  char featureId[KFeatureIdFieldSize];  ///< who says it
  TBool flag;                           ///< ETrue for success
};
static_assert(sizeof(TFeatureResultPayload) == 68);

/// How far an installation is over all its peripherals.
struct __attribute__((packed)) TFeatureProgressPayload {
  char featureId[KFeatureIdFieldSize];  ///< who says it
  TUint8 percent;                       ///< 0 to 100; 101 behind a Sanyo device's last step
};
static_assert(sizeof(TFeatureProgressPayload) == 65);
