// Test plugin: a loadable module without the rename entry point.
extern "C" __attribute__((visibility("default"))) int rename_mail_domain(const char*, const char*) {
  return 3;
}
