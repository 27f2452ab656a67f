// A feature module that cannot be created.
extern "C" const char* FeatureType() {
  return "peripheralloader";
}
