#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include "sqlite/FMKLVDatabase.h"
#include "support/LogCapture.h"
#include "support/TestHome.h"

namespace kelvo::test {
namespace {

struct Database : testing::Test {
  Database() { EXPECT_TRUE(db.open()); }
  FMKLVDatabase db{std::nullopt};
  LogCapture log;
};

TEST_F(Database, ValuesKeepTheirStorageClassInATableAndThroughAFunction) {
  const struct {
    const char* storageClass;
    Value bound, read;
  } cases[] = {{"null", nullptr, nullptr},
               {"integer", true, 1},
               {"integer", INT64_MIN, INT64_MIN},
               {"integer", UINT32_MAX, 4294967295},
               {"integer", UINT64_MAX, -1},
               {"real", 0.5F, 0.5},
               {"real", Date(std::chrono::milliseconds(1500)), 1.5},
               {"text", "it's \xC3\xA9", "it's \xC3\xA9"},
               {"blob", Data{}, Data{}},
               {"blob", Data{0, 255}, Data{0, 255}},
               {"text", Array{1, "a"}, "[1,\"a\"]"},
               {"text", Dictionary{{"k", 2}}, "{\"k\":2}"}};
  ASSERT_TRUE(db.executeUpdate("create table t (v)"));
  ASSERT_TRUE(db.makeFunctionNamed("same", 1, [](const Array& arguments) { return arguments[0]; }));
  for (const auto& each : cases) {
    SCOPED_TRACE(description(each.read));
    ASSERT_TRUE(db.executeUpdate("delete from t"));
    ASSERT_TRUE(db.executeUpdate("insert into t values (:v)", Dictionary{{"v", each.bound}}));
    // The query's arguments are destroyed before the test reads its rows.
    const auto rows = db.executeQuery("select v, ?, same(v), typeof(v), typeof(same(v)) from t", Array{each.bound});
    ASSERT_TRUE(rows && rows->next());
    for (const int column : {0, 1, 2}) {
      EXPECT_EQ((*rows)[column], each.read);
      EXPECT_EQ((*rows)[column].isInteger(), each.read.isInteger());
    }
    for (const int column : {3, 4}) EXPECT_EQ((*rows)[column], each.storageClass);
    EXPECT_FALSE(rows->next());
    EXPECT_FALSE(db.hasOpenResultSets());
  }
}

TEST_F(Database, AStatementFailsUnlessEveryParameterHasAValue) {
  ASSERT_TRUE(db.executeUpdate("create table t (a, b)"));
  const std::string insert = "insert into t values (:a, :b)";
  EXPECT_FALSE(db.executeUpdate(insert, Array{1}));
  EXPECT_FALSE(db.executeUpdate(insert, 1, 2, 3));
  EXPECT_FALSE(db.executeUpdate(insert, Dictionary{{"a", 1}, {"c", 2}}));
  EXPECT_EQ(log.count("<KLV ERROR> Could not find index for c "), 1U);
  EXPECT_EQ(log.count("<KLV ERROR> Error: the bind count (1) is not correct for the # of variables in the query (2) (" +
                      insert + ") (executeUpdate)"),
            2U);
  EXPECT_EQ(log.count("Error: the bind count (3) is not"), 1U);
  EXPECT_EQ(db.executeQuery("select ?", Array{}), nullptr);
  EXPECT_EQ(log.count("<KLV ERROR> Error: the bind count is not correct for the # of variables (executeQuery)"), 1U);
  EXPECT_TRUE(db.executeUpdate(insert, Dictionary{{"a", 1}, {"b", 2}, {"c", 3}}));
  EXPECT_EQ(db.intForQuery("select count(*) from t"), 1);
  EXPECT_EQ(sqlite3_next_stmt(db.sqliteHandle(), nullptr), nullptr);
}

TEST_F(Database, AResultSetKeepsItsArgumentsWhenTheCallerChangesThem) {
  const std::string text(100, 't');
  for (const bool cache : {false, true}) {
    db.setShouldCacheStatements(cache);
    const auto check = [&](const FMKLVDatabase::ResultSet& rows) {
      ASSERT_TRUE(rows && rows->next());
      EXPECT_EQ(rows->stringForColumnIndex(0), text);
      EXPECT_EQ(rows->stringForColumnIndex(1), "[\"" + text + "\"]");
      EXPECT_EQ(rows->dataForColumnIndex(2), Data(100, 7));
    };
    check(db.executeQuery("select :a, :b, :c", Dictionary{{"c", Data(100, 7)}, {"b", Array{text}}, {"a", text}}));
    Array changing{text, Array{text}, Data(100, 7)};
    auto rows = db.executeQuery("select ?, ?, ?", changing);
    for (int i = 0; i < 20; ++i) changing.append(i);
    check(rows);
  }
}

TEST_F(Database, AFormatNeedsOneValueForEveryItem) {
  const auto row = db.executeQueryWithFormat("select %5.2f+%ld, %@, '100%%', %lld", 0.5, 2, "it's", nullptr);
  ASSERT_TRUE(row && row->next());
  EXPECT_EQ((*row)[0], 2.5);
  EXPECT_EQ((*row)[1], "it's");
  EXPECT_EQ((*row)[2], "100%");
  EXPECT_TRUE((*row)[3].isNull());

  ASSERT_TRUE(db.executeUpdate("create table t (a)"));
  EXPECT_TRUE(db.executeUpdateWithFormat("insert into t values (%d)", 1));
  EXPECT_EQ(log.count("ERROR"), 0U);
  EXPECT_FALSE(db.executeUpdateWithFormat("insert into t values (%d)", 1, 2));
  EXPECT_EQ(db.executeQueryWithFormat("select %d"), nullptr);
  EXPECT_EQ(log.count("Error: the bind count"), 2U);
  EXPECT_FALSE(db.executeUpdateWithFormat("insert into t values (%y)", 1));
  EXPECT_FALSE(db.executeUpdateWithFormat("delete from t %"));
  EXPECT_TRUE(db.hadError());
  EXPECT_EQ(db.intForQuery("select count(*) from t"), 1);
}

TEST_F(Database, GettersConvertValuesAndReturnDefaultsForMissingOnes) {
  const auto row = db.executeQuery(
      "select 5000000000 as big, '12abc' as Txt, 2.9 as dbl, x'80ff' as blb, null as nil, -1 as neg, x'' as empty");
  EXPECT_FALSE(row->hasAnotherRow());
  EXPECT_TRUE((*row)[0].isNull());
  ASSERT_TRUE(row->next() && row->hasAnotherRow());
  EXPECT_EQ(row->columnCount(), 7);
  EXPECT_EQ(row->intForColumn("BIG"), INT32_MAX);
  EXPECT_EQ(row->longForColumn("big"), 5000000000);
  EXPECT_EQ(row->longLongIntForColumn("txt"), 12);
  EXPECT_EQ(row->unsignedLongLongIntForColumn("neg"), UINT64_MAX);
  EXPECT_TRUE(row->boolForColumn("neg"));
  EXPECT_DOUBLE_EQ(row->doubleForColumn("dbl"), 2.9);
  EXPECT_STREQ(row->UTF8StringForColumnName("txt"), "12abc");
  EXPECT_EQ(row->dataForColumn("txt"), (Data{'1', '2', 'a', 'b', 'c'}));
  EXPECT_EQ(row->dataNoCopyForColumn("blb")->back(), 0xFF);
  EXPECT_EQ(row->dataForColumn("empty"), Data());
  EXPECT_EQ(row->dateForColumn("dbl"), Date(std::chrono::milliseconds(2900)));
  for (const char* absent : {"nil", "no such"}) {
    EXPECT_TRUE(row->columnIsNull(absent));
    EXPECT_EQ(row->longForColumn(absent), 0);
    EXPECT_EQ(row->stringForColumn(absent), std::nullopt);
    EXPECT_EQ(row->dateForColumn(absent), std::nullopt);
    EXPECT_EQ(row->dataForColumn(absent), std::nullopt);
    EXPECT_TRUE(row->objectForColumnName(absent).isNull());
  }
  EXPECT_EQ(log.count("<KLV WARN> Warning: I could not find the column named 'no such'."), 6U);
  std::string texts;
  row->kvcMagic([&](const std::string& name, auto text) { texts += name + "=" + text.value_or("-") + " "; });
  EXPECT_EQ(texts, "big=5000000000 Txt=12abc dbl=2.9 blb=\x80\xFF nil=- neg=-1 empty= ");

  FMKLVError error;
  EXPECT_FALSE(row->nextWithError(&error));
  EXPECT_EQ(error.code, SQLITE_OK);
  EXPECT_EQ(row->resultDictionary(), std::nullopt);
  EXPECT_EQ(log.count("<KLV WARN> Warning: There seem to be no columns in this set."), 1U);
  EXPECT_FALSE(row->nextWithError(&error));
  EXPECT_EQ(error.message, "parentDB does not exist");
  EXPECT_EQ(log.count("<KLV ERROR> Error calling sqlite3_step (21: parentDB does not exist) rs"), 1U);
}

TEST_F(Database, AKeptStatementIsPreparedOnceAndHoldsNoTable) {
  ASSERT_TRUE(db.executeUpdate("create table t (a)"));
  const std::string insert = "insert into t (a) values (:a)";
  const auto run = [&] { return db.updateKeepingStatement(insert, Dictionary{{"a", std::string(100, 'x')}}); };
  EXPECT_TRUE(run() && run());
  EXPECT_EQ(db.cachedStatementForQuery(insert)->useCount(), 2);
  EXPECT_TRUE(db.executeUpdate("insert into t (a) values (3)"));
  EXPECT_EQ(db.cachedStatements().size(), 1U) << "the cache is off for all others";
  EXPECT_TRUE(db.executeUpdate("alter table t rename to u") && db.executeUpdate("create table t (b, a)") && run());
  EXPECT_EQ(db.intForQuery("select count(*) from u"), 3);
  EXPECT_EQ(db.intForQuery("select count(a) from t"), 1);
  EXPECT_TRUE(db.executeUpdate("drop table t"));
  EXPECT_FALSE(run());
  EXPECT_TRUE(db.executeUpdate("create table t (a)") && run());
  db.close();
  EXPECT_EQ(log.count("Closing leaked statement"), 0U);
}

TEST_F(Database, FailuresAreLoggedAndStayReadable) {
  FMKLVError error;
  EXPECT_FALSE(db.executeUpdateWithErrorAndBindings("no sql", &error, 1));
  EXPECT_EQ(error.code, SQLITE_ERROR);
  EXPECT_EQ(db.lastError().message, error.message);
  for (const char* line : {"Error: 1 \"near \"no\": syntax error\"", "Query: no sql", "Path: (null)"}) {
    EXPECT_EQ(log.count(std::string("<KLV ERROR> DB ") + line), 1U) << line;
  }
  ASSERT_TRUE(db.executeUpdate("create table t (a unique)"));
  EXPECT_FALSE(db.hadError());
  EXPECT_TRUE(db.update("insert into t values (?)", &error, 1));
  EXPECT_EQ(db.lastInsertRowId(), 1);
  EXPECT_EQ(db.changes(), 1);
  for (const bool cache : {false, true}) {
    db.setShouldCacheStatements(cache);
    EXPECT_FALSE(db.update("insert into t values (?)", &error, 1));
    EXPECT_EQ(error.code, SQLITE_CONSTRAINT);
    EXPECT_TRUE(db.hadError());
  }
  EXPECT_EQ(log.count("<KLV ERROR> Unknown error calling sqlite3_step (19: UNIQUE constraint failed: t.a) eu"), 2U);
  EXPECT_EQ(log.count("<KLV ERROR> Unknown error finalizing or resetting statement (19: "), 2U);
  EXPECT_FALSE(db.executeUpdate("insert into t values (?)"));  // SQLite itself reports no error here
  EXPECT_EQ(db.lastErrorCode(), SQLITE_RANGE);
  const int limit = sqlite3_limit(db.sqliteHandle(), SQLITE_LIMIT_LENGTH, 200);
  EXPECT_FALSE(db.executeUpdate("insert into t values (?)", std::string(201, 'x')));
  EXPECT_EQ(db.lastErrorCode(), SQLITE_TOOBIG);
  sqlite3_limit(db.sqliteHandle(), SQLITE_LIMIT_LENGTH, limit);
  EXPECT_FALSE(db.executeUpdate("-- nothing"));
  EXPECT_EQ(db.lastErrorCode(), SQLITE_MISUSE);
  EXPECT_FALSE(db.setKey("k") || db.setKeyWithData({1}) || db.rekey("k") || db.rekeyWithData({1}));
  EXPECT_TRUE(db.hadError());

  db.setLogsErrors(false);
  const auto logged = log.count("ERROR");
  EXPECT_FALSE(db.executeUpdate("no sql"));
  EXPECT_EQ(log.count("ERROR"), logged);
  db.close();
  EXPECT_FALSE(db.executeUpdate("select 1"));
  EXPECT_EQ(db.lastErrorCode(), SQLITE_MISUSE);
  EXPECT_FALSE(db.executeUpdateWithFormat("select 1", 1) || db.validateSQL("select 1"));
  EXPECT_EQ(db.lastErrorCode(), SQLITE_MISUSE);
  EXPECT_EQ(log.count("<KLV ERROR> The FMDatabase " + db.description() + " is not open."), 3U);
  FMKLVDatabase nowhere(home() + "/no/such/directory");
  EXPECT_FALSE(nowhere.openWithFlags(6));
  EXPECT_EQ(nowhere.lastErrorCode(), SQLITE_CANTOPEN);
}

TEST_F(Database, AFailedPrepareAbortsTheProcessWithCrashOnErrors) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("TMPDIR", home().c_str(), 1);
  db.setCrashOnErrors(true);
  EXPECT_DEATH(static_cast<void>(db.executeUpdate("no sql")), "");
}

TEST_F(Database, CloseFinalizesLeakedStatementsAndClosesResultSets) {
  sqlite3_stmt* leaked = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db.sqliteHandle(), "select 1", -1, &leaked, nullptr), SQLITE_OK);
  const auto rows = db.executeQuery("select 1 union select 2");
  ASSERT_TRUE(rows->next());
  EXPECT_TRUE(db.close());
  EXPECT_EQ(log.count("<KLV DEBUG> Closing leaked statement "), 1U);
  EXPECT_EQ(log.count("error closing!"), 0U);
  EXPECT_FALSE(rows->next());
  EXPECT_EQ(db.sqliteHandle(), nullptr);
  EXPECT_FALSE(db.goodConnection());
  EXPECT_TRUE(db.open() && db.goodConnection());
}

TEST_F(Database, ABatchRunsUpToTheFirstFailureAndReportsItsRows) {
  std::vector<Dictionary> rows;
  const auto take = [&](const Dictionary& row) {
    rows.push_back(row);
    return 0;
  };
  const std::string batch = "create table t (a); insert into t values (1), (null); select a as A from t; ";
  EXPECT_TRUE(db.executeStatements(batch, take));
  EXPECT_EQ(rows, (std::vector<Dictionary>{{{"A", "1"}}, {{"A", nullptr}}}));
  EXPECT_FALSE(db.executeStatements("delete from t; no sql; insert into t values (1)"));
  EXPECT_EQ(log.count("<KLV ERROR> Error inserting batch: near \"no\": syntax error"), 1U);
  EXPECT_EQ(db.intForQuery("select count(*) from t"), 0);
  EXPECT_FALSE(db.executeStatements("select 1; insert into t values (1)", [](const Dictionary&) { return 1; }));
  const auto throwing = [](const Dictionary&) -> int { throw std::runtime_error("block"); };
  EXPECT_THROW(static_cast<void>(db.executeStatements("select 1", throwing)), std::runtime_error);
  EXPECT_TRUE(db.executeStatements("insert into t values (1)"));
  EXPECT_EQ(db.intForQuery("select count(*) from t"), 1);
}

TEST_F(Database, DatesAreStoredAsTextIfThereIsAFormatter) {
  const Date date(std::chrono::seconds(951827696));  // 29 February
  const Date now = std::chrono::time_point_cast<std::chrono::microseconds>(Clock::now());
  EXPECT_EQ(db.dateForQuery("select ?", now), now);
  EXPECT_EQ(db.dateForQuery("select 1e300"), std::nullopt);
  db.setDateFormat(FMKLVDatabase::storeableDateFormat("%A %d %b %Y, %H:%M:%S"));
  EXPECT_EQ(db.stringForQuery("select ?", date), "Tuesday 29 Feb 2000, 12:34:56");
  EXPECT_EQ(db.dateForQuery("select ?", date), date);
  EXPECT_EQ(db.dateForQuery("select 'Tuesday 29 Feb 2000, 12:34:56 and more'"), std::nullopt);
  db.setDateFormat(FMKLVDateFormatter("%Y-%m-%dT%H:%M:%S%z"));
  EXPECT_EQ(db.dateFromString("2000-02-29T13:34:56+0100"), date);
}

TEST_F(Database, AFunctionMayThrowAndBeReplacedButNotUseItsConnection) {
  ASSERT_TRUE(db.makeFunctionNamed("own", 1, [](const Array& arguments) { return arguments[0]; }));
  EXPECT_EQ(db.stringForQuery("select own(1, 2)"), std::nullopt);
  EXPECT_EQ(log.count("(1: too many arguments) rs"), 1U);
  ASSERT_TRUE(db.makeFunctionNamed("OWN", -1, [this](const Array& arguments) -> Value {
    if (arguments.empty()) throw std::runtime_error("no arguments");
    return db.executeUpdate("delete from t") ? "reentrant" : "in use";
  }));
  ASSERT_TRUE(db.executeUpdate("create table t (a)"));
  EXPECT_FALSE(db.executeUpdate("insert into t values (own())"));
  EXPECT_EQ(db.lastErrorMessage(), "no arguments");
  EXPECT_TRUE(db.executeUpdate("insert into t values (own(1, 2, 3))"));
  EXPECT_EQ(db.stringForQuery("select a from t"), "in use");
  EXPECT_EQ(log.count("<KLV ERROR> The FMDatabase " + db.description() + " is currently in use."), 1U);
}

TEST_F(Database, AdditionsReadTheSchemaAndTheVersionNumbers) {
  ASSERT_TRUE(db.executeStatements("create table \"It's\" (First, second); create index i on \"It's\" (First)"));
  EXPECT_TRUE(db.tableExists("IT'S") && db.columnExists("FIRST", "it's"));
  EXPECT_FALSE(db.tableExists("i") || db.tableExists("no") || db.columnExists("third", "it's") ||
               db.columnExists("first", "no"));
  const auto schema = db.getSchema();
  ASSERT_TRUE(schema->next());
  EXPECT_EQ(schema->stringForColumn("name"), "It's");
  EXPECT_TRUE(schema->next() && !schema->next());
  EXPECT_TRUE(db.setUserVersion(7) && db.setApplicationID(0xFFFFFFFE));
  EXPECT_EQ(db.userVersion(), 7U);
  EXPECT_EQ(db.applicationID(), 0xFFFFFFFE);
  FMKLVError error;
  EXPECT_TRUE(db.validateSQL("drop table \"It's\"", &error));
  EXPECT_TRUE(db.tableExists("it's"));
  EXPECT_EQ(log.count("ERROR"), 0U);
  EXPECT_FALSE(db.executeUpdate("select ?"));
  EXPECT_FALSE(db.validateSQL("drop", &error));
  EXPECT_EQ(error.code, SQLITE_ERROR) << "the error of the call before";
  EXPECT_EQ(log.count("DB Error"), 0U);
  EXPECT_TRUE(db.boolForQuery("select ?", 2) && db.dataForQuery("select x'01'") == Data{1} &&
              db.longForQuery("select ?", -5) == -5);
  EXPECT_EQ(db.doubleForQuery("select 1 where 0"), 0);
}

TEST_F(Database, TracingLogsStatementsAndTheirValues) {
  db.setTraceExecution(true);
  EXPECT_EQ(db.intForQuery("select length(?) + ?", Data(3), "4"), 7);
  EXPECT_TRUE(db.beginTransaction() && db.rollback());
  EXPECT_EQ(log.count("<KLV DEBUG> " + db.description() + " executeQuery: select length(?) + ? "), 1U);
  EXPECT_EQ(log.count("<KLV DEBUG> " + db.description() + " executeUpdate: begin exclusive transaction "), 1U);
  EXPECT_EQ(log.count("<KLV DEBUG> data: 3 bytes ") + log.count("<KLV DEBUG> obj: 4 "), 2U);
}

struct Cache : Database {
  Cache() { db.setShouldCacheStatements(true); }
};

TEST_F(Cache, AStatementIsReusedWithoutItsOldArguments) {
  ASSERT_TRUE(db.executeUpdate("create table t (a, b)"));
  const std::string insert = "insert into t values (:a, :b)";
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(db.executeUpdate(insert, Dictionary{{"a", i}, {"b", std::string(50, 'b')}}));
  EXPECT_FALSE(db.executeUpdate(insert, Dictionary{{"a", 9}}));  // the old value of b is gone
  const auto& statements = db.cachedStatements().at(insert);
  ASSERT_EQ(statements.size(), 1U);
  EXPECT_EQ(statements[0]->useCount(), 3);
  char* expanded = sqlite3_expanded_sql(statements[0]->statement());
  EXPECT_STREQ(expanded, "insert into t values (NULL, NULL)");
  sqlite3_free(expanded);
  EXPECT_TRUE(db.close());
  EXPECT_EQ(log.count("leaked"), 0U);
}

TEST_F(Cache, AStatementInUseIsNotReusedAndOutlivesTheCache) {
  const std::string sql = "select 1 union select 2";
  const auto first = db.executeQuery(sql);
  ASSERT_TRUE(first->next());
  auto second = db.executeQuery(sql);
  ASSERT_TRUE(second->next());
  EXPECT_EQ(first->intForColumnIndex(0), 1);
  EXPECT_EQ(db.cachedStatements().at(sql).size(), 2U);
  EXPECT_EQ(db.cachedStatementForQuery(sql), nullptr);
  second->close();
  const auto idle = db.cachedStatementForQuery(sql);
  ASSERT_NE(idle, nullptr);
  second = db.executeQuery(sql);
  EXPECT_EQ(db.cachedStatements().at(sql).size(), 2U);
  EXPECT_TRUE(idle->inUse());
  second->close();

  db.setShouldCacheStatements(false);
  EXPECT_TRUE(db.cachedStatements().empty());
  EXPECT_EQ(idle->statement(), nullptr);
  ASSERT_TRUE(first->next());
  EXPECT_EQ(first->intForColumnIndex(0), 2);
  EXPECT_FALSE(first->next());
  EXPECT_EQ(sqlite3_next_stmt(db.sqliteHandle(), nullptr), nullptr) << "a statement leaked";
}

}  // namespace
}  // namespace kelvo::test
