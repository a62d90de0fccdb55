// Test plugin: a loadable module without the rename entry point.
extern "C" int rename_mail_domain(const char*, const char*) { return 3; }
