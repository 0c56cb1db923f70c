/** Making an archive where not all of it can be made. */
#include "fleet_server.h"
#include "program.h"

using namespace evarchive;
using fleet::server;
using testing::HasSubstr;

// The owner of the server has a rule of his own.
TEST(FleetCreationTest, PartitionsThatCouldNotBeMadeAreNamed) {
    const std::string name = "created";
    const std::string place = server().makeDatabase(name);
    server().sql("CREATE FUNCTION refuse() RETURNS event_trigger LANGUAGE plpgsql AS $$ BEGIN "
                 "IF EXISTS (SELECT FROM pg_event_trigger_ddl_commands() WHERE object_identity "
                 "~ 'events_[0-9]+_1$') THEN RAISE EXCEPTION 'not this one'; END IF; END $$; "
                 "CREATE EVENT TRIGGER test ON ddl_command_end EXECUTE FUNCTION refuse()",
                 name);
    const support::TempDirectory directory;
    support::Process process(
        support::commandOf("evarchiver", {"db", "create", "--db", place, "--retention-days", "4"}),
        directory.file("create"));
    EXPECT_EQ(process.wait().status, 1);
    EXPECT_THAT(process.output(), HasSubstr("could not be made: ERROR:  not this one"));
    server().sql("DROP EVENT TRIGGER test", name);
    EXPECT_EQ(maintainFleet(place, 0, time(nullptr)).made.size(), 7U);
    server().sql("DROP DATABASE " + name + " WITH (FORCE)");
}
